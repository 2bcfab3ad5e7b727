# SPDX-License-Identifier: BSD-2-Clause
# The tests of the programs of many hosts, with servers of their engine.
add_library(zeloo_fleet_testing STATIC fleet_testing.cc centre_testing.cc)
target_link_libraries(zeloo_fleet_testing PUBLIC zeloo_fleet zeloo_testing GTest::gtest)
foreach(program faultd faultctl faultgate faultfleet faultcentre relayd)
  string(TOUPPER ${program} macro)
  add_dependencies(zeloo_fleet_testing ${program})
  target_compile_definitions(zeloo_fleet_testing PUBLIC ${macro}="$<TARGET_FILE:${program}>")
endforeach()
target_compile_definitions(zeloo_fleet_testing PUBLIC CREDENTIALS="${PROJECT_SOURCE_DIR}/fleet/credentials")
foreach(test faultgate_test faultgate_cluster_test faultgate_requests_test faultgate_rights_test faultgate_servers_test
        faultstate_test faultcentre_test faultcentre_applier_test faultcentre_takeover_test faultcentre_cluster_test
        faultcentre_rights_test)
  add_executable(${test} ${test}.cc)
  zeloo_link_test(${test} zeloo_fleet_testing)
endforeach()

# A short form; `./check fleetstorm` runs the full one.
file(GLOB FLEETSTORM CONFIGURE_DEPENDS fleetstorm/*.cc)
add_executable(fleetstorm ${FLEETSTORM})
target_link_libraries(fleetstorm PRIVATE zeloo_fleet zeloo_testing GTest::gtest)
zeloo_test_programs(fleetstorm faultfleet faultcentre faultgate faultd)
add_test(NAME fleetstorm COMMAND ${SANDBOX} $<TARGET_FILE:fleetstorm> --seconds 20 --hosts 6 --spare-leaders)
set_tests_properties(fleetstorm PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300 LABELS storm)
