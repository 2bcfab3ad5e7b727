// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/Error.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <sstream>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/Dates.h"
#include "Misc/proginfo.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

const char Module[] = "$Id: probe.C,v 1.151 1998/03/07 09:05:00 orv Exp $";
const char Program[] = "/opt/orv/bin/orvd";

std::string DescriptionOf(int error) { return strerror(error); }

// What a report leaves on standard error, with `stamp` in it.
std::string Displayed(const std::string& stamp, int count, const std::string& program, const std::string& severity,
                      const std::string& type, const std::string& code, const std::string& module, long line,
                      const std::string& description)
{
    std::ostringstream text;
    text << "\nErrorReporter: " << stamp << "  Total Error Count= " << count << "\n  Program=" << program
         << "\n  Severity Level=" << severity << "\n  Error Type= " << type << "\n  Error Code= " << code
         << "\n  Module= " << module << "\n  Line= " << line << "\n  Description= " << description << "\n\n";
    return text.str();
}

// The date and time that a display shows.
std::string StampOf(const std::string& display)
{
    const std::string line = ReportField(display, "ErrorReporter: ");
    return line.substr(0, line.find("  Total"));
}

std::string Dump()
{
    std::ostringstream text;
    ErrorReporter::dumpErrorCodesOn(text);
    return text.str();
}

// These come first: the suites behind them call ProgInfo::Initialize and report.
TEST(ErrorBeforeInitialize, ReportsWithAnEmptyProgramName)
{
    ASSERT_EQ(ProgInfo::GetFullProgramName(), nullptr) << "this test must run before those that call Initialize";
    SyslogSink sink;
    const ChildResult child = RunInChild([] {
        ErrorReporter reporter;
        reporter._ReportError(ErrorReporter::PANIC, 20, "early", Module, 3);
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.err,
              Displayed(StampOf(child.err), 1, "", "PANIC", "OTHER", "Application Error.", Module, 3, "early") +
                  "********************************************\n"
                  "Fatal Error detected...Exiting  program\n"
                  "********************************************\n");
    EXPECT_EQ(sink.Records(), std::vector<std::string>{std::string(program_invocation_short_name) +
                                                       ": 410200003|Appl|1|S|F|1|0|0|0|0|0|probe.C|0|0|0|1# : v(P) [" +
                                                       ProgInfo::GetNodeNameLongVersion() + "]|errno=0, " +
                                                       DescriptionOf(0) + "|OTHER|early"});
}

// A display before any report shows an empty one.
TEST(ErrorBeforeInitialize, DisplayShowsNoErrorBeforeAnyReport)
{
    ErrorReporter reporter;
    EXPECT_EQ(ErrorReporter::GetErrorCount(), 0);
    EXPECT_EQ(CaptureStderr([&] { reporter.Display(); }),
              Displayed("", 0, "", "NOTICE", "NOT_SPECIFIED", "No Error.", "", 0, ""));
}

class Error : public testing::Test {
protected:
    Error()
    {
        static char name[] = "/opt/orv/bin/orvd";
        static char* const argv[] = {name, nullptr};
        ProgInfo::Initialize(1, argv, nullptr, "2.0");
    }

    // The message part of a record up to the log text.
    static std::string Prefix()
    {
        return std::string(Program) + " " + Program + ": v2.0(P) [" + ProgInfo::GetNodeNameLongVersion() + "]|";
    }

    static std::string Record(const std::string& tag, char letter, const std::string& module, const std::string& text)
    {
        return "orvd: " + tag + "|Appl|1|S|" + letter + "|1|0|0|0|0|0|" + module + "|0|0|0|1#" + Prefix() + text;
    }

    ErrorReporter reporter;
};

TEST(ErrorTypes, NumbersAreFixed)
{
    static_assert(ErrorReporter::NO_ERRORS == 0, "");
    static_assert(ErrorReporter::OUT_OF_MEMORY == 10, "");
    static_assert(ErrorReporter::OPENING_FILE == 11, "");
    static_assert(ErrorReporter::reserved01 == 12, "");
    static_assert(ErrorReporter::LINKING_FILE == 13, "");
    static_assert(ErrorReporter::UNLINKING_FILE == 14, "");
    static_assert(ErrorReporter::READING_FROM_FILE == 15, "");
    static_assert(ErrorReporter::WRITING_TO_FILE == 16, "");
    static_assert(ErrorReporter::OPENING_PIPE == 17, "");
    static_assert(ErrorReporter::reserved02 == 18, "");
    static_assert(ErrorReporter::READING_FROM_PIPE == 19, "");
    static_assert(ErrorReporter::OTHER == 20, "");
    static_assert(ErrorReporter::PROCESSING_THRESHOLDS == 21, "");
    static_assert(ErrorReporter::INVALID_DATA == 22, "");
    static_assert(ErrorReporter::reserved03 == 23, "");
    static_assert(ErrorReporter::reserved04 == 24, "");
    static_assert(ErrorReporter::reserved05 == 25, "");
    static_assert(ErrorReporter::INVALID_TRANSITION == 26, "");
    static_assert(ErrorReporter::INVALID_STATE == 27, "");
    static_assert(ErrorReporter::INVALID_FAULT_ID == 28, "");
    static_assert(ErrorReporter::INVALID_REC_ID == 29, "");
    static_assert(ErrorReporter::reserved06 == 30, "");
    static_assert(ErrorReporter::KDHA_NOT_FOUND == 31, "");
    static_assert(ErrorReporter::NO_SSSINDEX_FILE == 32, "");
    static_assert(ErrorReporter::reserved07 == 33, "");
    static_assert(ErrorReporter::NO_SSSBASE_FILE == 34, "");
    static_assert(ErrorReporter::SSS_VERSION_INVALID == 35, "");
    static_assert(ErrorReporter::NO_NEW_SSSINDEX_FILE == 36, "");
    static_assert(ErrorReporter::NO_NEW_SSSBASE_FILE == 37, "");
    static_assert(ErrorReporter::SSS_PIECE_NOT_FOUND == 38, "");
    static_assert(ErrorReporter::reserved08 == 39, "");
    static_assert(ErrorReporter::reserved09 == 40, "");
    static_assert(ErrorReporter::reserved10 == 41, "");
    static_assert(ErrorReporter::reserved11 == 42, "");
    static_assert(ErrorReporter::reserved12 == 43, "");
    static_assert(ErrorReporter::PERMISSION_DENIED == 44, "");
    static_assert(ErrorReporter::OPTION_NOT_FOUND == 45, "");
    static_assert(ErrorReporter::reserved13 == 46, "");
    static_assert(ErrorReporter::UNSUPPORTED_FEATURE == 47, "");
    static_assert(ErrorReporter::IPC_BAD_RESPONSE_EVENT == 48, "");
    static_assert(ErrorReporter::RRList_ALREADY_EXISTS == 49, "");
    static_assert(ErrorReporter::TERMINATION_QUEUED == 50, "");
    static_assert(ErrorReporter::INVALID_SFR_COMMAND == 51, "");
    static_assert(ErrorReporter::RRTmpl_VAR_MISMATCH == 52, "");
    static_assert(ErrorReporter::INSUFF_USRFUNCS_ARGS == 53, "");
    static_assert(ErrorReporter::FORK_FAILED == 54, "");
    static_assert(ErrorReporter::EXEC_FAILED == 55, "");
    static_assert(ErrorReporter::ITEM_DOES_NOT_EXIST == 56, "");
    static_assert(ErrorReporter::MKDIR_FAILED == 57, "");
    static_assert(ErrorReporter::FEATURE_DOES_NOT_WORK == 58, "");
    static_assert(ErrorReporter::CLIPS_ERRORS == 59, "");
    static_assert(ErrorReporter::IPC_ERROR == 60, "");
    static_assert(ErrorReporter::IPC_QUEUE_TOO_SMALL == 61, "");
    static_assert(ErrorReporter::TCP_ERROR == 62, "");
    static_assert(ErrorReporter::INVALID_SFR_FILE == 63, "");
    static_assert(ErrorReporter::INVALID_SSS_FILE == 64, "");
    static_assert(ErrorReporter::SERVER_GONE == 65, "");
    static_assert(ErrorReporter::IPC_CONNECTION_LOST == 66, "");
    static_assert(ErrorReporter::IPC_SEND_PROCESS_GONE == 67, "");
    static_assert(ErrorReporter::IPC_RECV_PROCESS_GONE == 68, "");
    static_assert(ErrorReporter::IPC_RECV_TIME_OUT == 69, "");
    static_assert(ErrorReporter::IPC_SEND_TIME_OUT == 70, "");
    static_assert(ErrorReporter::TOO_MANY_FAULTS == 71, "");
    static_assert(ErrorReporter::LOST_SFR == 72, "");
    static_assert(ErrorReporter::NO_RECOMMENDATION == 73, "");
    static_assert(ErrorReporter::OSF_VERSION_MISMATCH == 74, "");
    static_assert(ErrorReporter::WAIT_TIME_EXCEEDED == 75, "");
    static_assert(ErrorReporter::FILE_SYSTEM_FULL == 76, "");
    static_assert(ErrorReporter::BAD_IPC_PARAMETER == 77, "");
    static_assert(ErrorReporter::MODEM_ESCALATE_FAILED == 78, "");
    static_assert(ErrorReporter::PROPAGATION_FAILED == 79, "");
    static_assert(ErrorReporter::PATTERN_LOAD_FAILURE == 80, "");
    static_assert(ErrorReporter::EVENT_REJECTED == 81, "");
    static_assert(ErrorReporter::CUST_INFO_NEEDED == 82, "");
    static_assert(ErrorReporter::STATE_ACTION_FAILED == 83, "");
    static_assert(ErrorReporter::NETWORK_ESCALATE_FAILED == 84, "");
    static_assert(ErrorReporter::FAILED_CREATE_LOCK_FILE == 85, "");
    static_assert(ErrorReporter::PACKAGE_DOWNLOADED == 86, "");
    static_assert(ErrorReporter::KLIB_MOVE_FAILED == 87, "");
    static_assert(ErrorReporter::FILE_DOWNLOADED == 88, "");
    static_assert(ErrorReporter::ALREADY_ESCALATING == 89, "");
    static_assert(ErrorReporter::MONITORING_REENABLED == 90, "");
    static_assert(ErrorReporter::MONITORING_OFF == 91, "");
    static_assert(ErrorReporter::MISCONFIGURATION_NODES == 92, "");
    static_assert(ErrorReporter::NOTICE == 0 && ErrorReporter::NOTICE_WITH_LOG == 1 && ErrorReporter::WARNING == 2 &&
                      ErrorReporter::WARNING_WITH_LOG == 3 && ErrorReporter::PANIC == 4,
                  "");
}

TEST(ErrorTypes, DumpListsEveryCode)
{
    const std::string text = Dump();
    EXPECT_EQ(text, "\nDump of all error codes and general messages from ErrorReporter:\n"
                    "  10\tMemory allocation failed.\n"
                    "  11\tFailed to open a file.\n"
                    "  12\tThis error code is reserved\n"
                    "  13\tSystem call link() failed.\n"
                    "  14\tSystem call unlink() failed.\n"
                    "  15\tFailed to read from a file.\n"
                    "  16\tFailed to write to a file.\n"
                    "  17\tFault to open a pipe.\n"
                    "  18\tThis error code is reserved\n"
                    "  19\tError occurred while reading from pipe.\n"
                    "  20\tOTHER\n"
                    "  21\tError occurred while processing thresholds.\n"
                    "  22\tInvalid data was encountered.\n"
                    "  23\tThis error code is reserved\n"
                    "  24\tThis error code is reserved\n"
                    "  25\tThis error code is reserved\n"
                    "  26\tAn invalid transition was encountered.\n"
                    "  27\tAn invalid state was encountered.\n"
                    "  28\tAn invalid fault ID was encountered.\n"
                    "  29\tAn invalid recommendation ID was encountered.\n"
                    "  30\tThis error code is reserved\n"
                    "  31\tThe requested SSS is not in the knowledge library.\n"
                    "  32\tThe SSSIndex file does not exist or cannot be opened.\n"
                    "  33\tThis error code is reserved\n"
                    "  34\tThe SSSBase file does not exist or cannot be opened.\n"
                    "  35\tVersion number is not greater than installed version.\n"
                    "  36\tA new SSSIndex file could not be created.\n"
                    "  37\tA new SSSBase file could not be created.\n"
                    "  38\tThe requested data was not found in the SSS.\n"
                    "  39\tThis error code is reserved\n"
                    "  40\tThis error code is reserved\n"
                    "  41\tThis error code is reserved\n"
                    "  42\tThis error code is reserved\n"
                    "  43\tThis error code is reserved\n"
                    "  44\tPermission denied.\n"
                    "  45\tAn undefined option was read - used default value.\n"
                    "  46\tThis error code is reserved\n"
                    "  47\tAn unsupported feature was encountered.\n"
                    "  48\tBad ipc response event received.\n"
                    "  49\tRecommendation record list already exists.\n"
                    "  50\tServer is busy and has queued the termination request.\n"
                    "  51\tAn invalid SFR command was encountered - ignored.\n"
                    "  52\tRecommendation template variable has no value.\n"
                    "  53\tInsufficient number of arguments to a CLIPS user function.\n"
                    "  54\tSystem call fork() failed\n"
                    "  55\tSystem call exec() failed\n"
                    "  56\tCannot find the data item, it does not exist.\n"
                    "  57\tCannote create a directory: system call mkdirp failed.\n"
                    "  58\tThis feature does not work properly\n"
                    "  59\tErrors occurred when running CLIPS\n"
                    "  60\tAn ipc message queue error occurred\n"
                    "  61\tThe ipc queue max size is too small (MSGMNB).\n"
                    "  62\tA tcp error occurred\n"
                    "  63\tInvalid SFR file\n"
                    "  64\tInvalid SSS file\n"
                    "  65\tserver process no longer exists.\n"
                    "  66\tconnection to server has been lost.\n"
                    "  67\tprocess to send message to no longer exists.\n"
                    "  68\tprocess to receive message from no longer exists.\n"
                    "  69\ttime out waiting for response.\n"
                    "  70\ttime out sending message.\n"
                    "  71\tDetected too many faults - new faults are ignored.\n"
                    "  72\tThe SFR file for an active fault has been deleted - fault disposed.\n"
                    "  73\tThis fault currently has no outstanding recommendations.\n"
                    "  74\tFault database created by a different server version.\n"
                    "  75\tChild process run time exceeded max time to run.\n"
                    "  76\tFile System Full.\n"
                    "  77\tInvalid IPC event parameter received.\n"
                    "  78\tFailed to contact Kelvaro via modem.\n"
                    "  79\tAttempt to propagate client package failed.\n"
                    "  80\tAttempt to memory load awk pattern failed.\n"
                    "  81\trequest for service was rejected.\n"
                    "  82\tCustomer information is needed to contact Kelvaro\n"
                    "  83\tState action unable to be executed\n"
                    "  84\tFailed to contact Kelvaro via network.\n"
                    "  85\tFailed to lock necessary files.\n"
                    "  86\tReceived a package from Remote Support\n"
                    "  87\tMove of KBASE file from install directory failed\n"
                    "  88\tReceived a file from Remote Support\n"
                    "  89\tAlready communicating with Brantel Remote Support.\n"
                    "  90\tMonitoring reenabled.\n"
                    "  91\tMonitoring off.\n"
                    "  92\tReceiving fault message from an invalid node\n"
                    "End of ErrorReporter dump.\n");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\t'), 83);
}

TEST(ErrorTypes, NumbersWithoutAMessageAreNotSpecified)
{
    for (int code : {0, 1, 9, 93, 999, 1000, -1, -32768, 32767})
        EXPECT_STREQ(ErrorReporter::GetErrorType(static_cast<short>(code)), "NOT_SPECIFIED") << code;
    EXPECT_STREQ(ErrorReporter::GetErrorType(10), "Memory allocation failed.");
    EXPECT_STREQ(ErrorReporter::GetErrorType(12), "This error code is reserved");
    EXPECT_STREQ(ErrorReporter::GetErrorType(20), "OTHER");
    EXPECT_STREQ(ErrorReporter::GetErrorType(92), "Receiving fault message from an invalid node");
}

TEST(ErrorTypes, SeveritiesHaveTheirNames)
{
    const char* const names[] = {"NOTICE", "NOTICE_WITH_LOG", "WARNING", "WARNING_WITH_LOG", "PANIC"};
    for (short severity = 0; severity < 5; severity++)
        EXPECT_STREQ(ErrorReporter::GetErrorSeverity(severity), names[severity]);
    EXPECT_STREQ(ErrorReporter::GetErrorSeverity(5), "UNRECOGNIZED");
    EXPECT_STREQ(ErrorReporter::GetErrorSeverity(-1), "UNRECOGNIZED");
}

TEST(ErrorTypes, ErrorDescIsTheSystemsText)
{
    EXPECT_EQ(ErrorReporter::GetErrorDesc(ENOENT), DescriptionOf(ENOENT));
    EXPECT_EQ(ErrorReporter::GetErrorDesc(-5), DescriptionOf(-5));
    EXPECT_EQ(ErrorReporter::GetErrorDesc(9999), DescriptionOf(9999));
}

TEST_F(Error, DisplaysAReportWhole)
{
    const int count = ErrorReporter::GetErrorCount();
    const long before = Dates::CurrentTime();
    const std::string text = CaptureStderr([&] {
        errno = ENOENT;
        reporter._ReportError(ErrorReporter::WARNING, ErrorReporter::OPENING_FILE, "cannot open /x", Module, 123);
    });
    const long after = Dates::CurrentTime();
    const long stamp = Dates::GetDateTime(StampOf(text).c_str());
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);
    EXPECT_EQ(text, Displayed(StampOf(text), count + 1, Program, "WARNING", "Failed to open a file.",
                              "2 : " + DescriptionOf(ENOENT), Module, 123, "cannot open /x"));
    EXPECT_EQ(ErrorReporter::GetErrorCode(), ENOENT);
    EXPECT_EQ(ErrorReporter::GetReturnStatus(), ErrorReporter::WARNING);
}

TEST_F(Error, DisplayShowsTheLastReportOfAnyObject)
{
    ErrorReporter other;
    const std::string first = CaptureStderr([&] { other._ReportError(2, 27, "from other", Module, 7); });
    EXPECT_EQ(CaptureStderr([&] { reporter.Display(); }), first);
}

TEST_F(Error, WithoutAnErrnoItIsAnApplicationErrorOrNone)
{
    const std::string report = CaptureStderr([&] {
        errno = 0;
        reporter._ReportError(ErrorReporter::WARNING, ErrorReporter::OTHER, "d", Module, 1);
    });
    EXPECT_NE(report.find("\n  Error Code= Application Error.\n"), std::string::npos) << report;
    ErrorReporter::ClearError();
    ErrorReporter::SetReturnStatus(0);
    const std::string display = CaptureStderr([&] { reporter.Display(); });
    EXPECT_EQ(display, Displayed(StampOf(report), ErrorReporter::GetErrorCount(), Program, "NOTICE", "OTHER",
                                 "No Error.", Module, 1, "d"));
}

TEST_F(Error, ANoticeWithoutErrnoShowsNoError)
{
    const std::string report = CaptureStderr([&] {
        errno = 0;
        reporter._ReportError(ErrorReporter::NOTICE, ErrorReporter::OTHER, "d", Module, 1);
    });
    EXPECT_EQ(ReportField(report, "  Error Code= "), "No Error.");
}

TEST_F(Error, StoredTextsAreCutAndTerminated)
{
    const std::string description(200, 'd');
    const std::string module = "$Id: " + std::string(100, 'm');
    for (const size_t length : {149, 150, 200}) {
        const std::string text = CaptureStderr(
            [&] { reporter._ReportError(2, 20, description.substr(0, length).c_str(), module.c_str(), 1); });
        EXPECT_EQ(ReportField(text, "  Description= "), std::string(149, 'd'));
        EXPECT_EQ(ReportField(text, "  Module= "), module.substr(0, 59));
    }
    const std::string text = CaptureStderr([&] { reporter._ReportError(2, 20, "short", "m", 1); });
    EXPECT_EQ(ReportField(text, "  Description= "), "short");
    EXPECT_EQ(ReportField(text, "  Module= "), "m");
}

TEST_F(Error, AnUnknownSeverityIsDisplayedAndCountedOnly)
{
    SyslogSink sink;
    const int count = ErrorReporter::GetErrorCount();
    const std::string text = CaptureStderr([&] {
        errno = 0;
        reporter._ReportError(5, 93, "odd", Module, -4);
    });
    EXPECT_EQ(text, Displayed(StampOf(text), count + 1, Program, "UNRECOGNIZED", "NOT_SPECIFIED", "Application Error.",
                              Module, -4, "odd"));
    EXPECT_EQ(ErrorReporter::GetErrorCount(), count + 1);
    EXPECT_TRUE(sink.Records().empty());
}

TEST_F(Error, NoticeAndWarningAreNotLogged)
{
    SyslogSink sink;
    CaptureStderr([&] {
        reporter._ReportError(ErrorReporter::NOTICE, 20, "d", Module, 1);
        reporter._ReportError(ErrorReporter::WARNING, 20, "d", Module, 1);
    });
    EXPECT_TRUE(sink.Records().empty());
}

TEST_F(Error, EveryReportCounts)
{
    const int count = ErrorReporter::GetErrorCount();
    CaptureStderr([&] {
        ErrorReporter other;
        reporter._ReportError(ErrorReporter::NOTICE, 20, "d", Module, 1);
        other._ReportError(ErrorReporter::WARNING_WITH_LOG, 20, "d", Module, 1);
    });
    EXPECT_EQ(ErrorReporter::GetErrorCount(), count + 2);
}

TEST_F(Error, LogsTheRecordWhole)
{
    SyslogSink sink;
    CaptureStderr([&] {
        errno = EACCES;
        reporter._ReportError(ErrorReporter::WARNING_WITH_LOG, ErrorReporter::INVALID_STATE, "what", Module, 123);
        errno = 0;
        reporter._ReportErrorExt(ErrorReporter::NOTICE_WITH_LOG, ErrorReporter::FILE_DOWNLOADED, "file", Module, 9,
                                 "more");
        reporter._ReportErrorExt(ErrorReporter::NOTICE_WITH_LOG, 0, "file", Module, 9, nullptr);
    });
    const std::vector<std::string> records = sink.Records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0], Record("410270123", 'W', "probe.C",
                                 "errno=13, " + DescriptionOf(EACCES) + "|An invalid state was encountered.|what"));
    EXPECT_EQ(records[1], Record("410880009", 'I', "probe.C",
                                 "errno=0, " + DescriptionOf(0) + "|Received a file from Remote Support|file|more"));
    EXPECT_EQ(records[2], Record("410000009", 'I', "probe.C", "errno=0, " + DescriptionOf(0) + "|NOT_SPECIFIED|file"));
}

TEST_F(Error, RecordsGoToTheUserFacilityAsInfo)
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    ASSERT_EQ(bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
    reporter.MakeErrorLogEntry(ErrorReporter::NOTICE_WITH_LOG, 20, "text", Module, 1);
    char block[1000] = "";
    EXPECT_GT(recv(fd, block, sizeof block - 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(std::string(block, 4), "<14>");
    close(fd);
    unlink("/dev/log");
}

TEST_F(Error, MakeErrorLogEntrySendsTheTextAsItIs)
{
    SyslogSink sink;
    const int count = ErrorReporter::GetErrorCount();
    reporter.MakeErrorLogEntry(ErrorReporter::NOTICE_WITH_LOG, 20, "text", Module, 1);
    EXPECT_EQ(sink.Records(), std::vector<std::string>{Record("410200001", 'I', "probe.C", "text")});
    EXPECT_EQ(ErrorReporter::GetErrorCount(), count);
}

TEST_F(Error, TheTagWrapsAt32Bits)
{
    SyslogSink sink;
    reporter.MakeErrorLogEntry(1, 92, "t", Module, 2147483647L);
    reporter.MakeErrorLogEntry(1, 300000, "t", Module, 0);
    reporter.MakeErrorLogEntry(1, 10, "t", Module, static_cast<long>(4294967301));
    reporter.MakeErrorLogEntry(1, -1, "t", Module, -1);
    const std::vector<std::string> records = sink.Records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0], Record("-1736563649", 'I', "probe.C", "t"));
    EXPECT_EQ(records[1], Record("-884967296", 'I', "probe.C", "t"));
    EXPECT_EQ(records[2], Record("410100005", 'I', "probe.C", "t"));
    EXPECT_EQ(records[3], Record("409989999", 'I', "probe.C", "t"));
}

TEST_F(Error, TheSoftwareModuleIsTakenFromTheIdentification)
{
    SyslogSink sink;
    const std::pair<const char*, const char*> cases[] = {
        {"$Id: Error.C,v 1.151 1998/03/07 09:05:00 orv Exp $", "Error.C"},
        {"NoBlankHere,v", "Unknown"},
        {"", "Unknown"},
        {"a ,rest", ""},
        {"a bc de,v", "bc de"},
        {"a,b cd,v", "cd"},
        {"$Id: nothing behind", "nothing behind"},
        {"$Id: a-file-name-of-more-than-23-characters.C,v 1.1", "a-file-name-of-more-tha"},
        {"$Id: exactly-23-characters.C,v 1.1", "exactly-23-characters.C"},
        {"$Id: no-comma-and-more-than-23-characters", "no-comma-and-more-than-"},
    };
    for (const auto& c : cases) {
        reporter.MakeErrorLogEntry(1, 20, "t", c.first, 1);
        EXPECT_EQ(sink.Records(), std::vector<std::string>{Record("410200001", 'I', c.second, "t")}) << c.first;
    }
}

TEST_F(Error, ALongDescriptionIsLoggedWhole)
{
    SyslogSink sink;
    for (const size_t length : {200, 1100, 32767, 40000, 70000}) {
        const std::string description(length, 'x');
        const std::string shown = CaptureStderr([&] {
            errno = 0;
            reporter._ReportError(ErrorReporter::NOTICE_WITH_LOG, 20, description.c_str(), Module, 1);
        });
        EXPECT_EQ(ReportField(shown, "  Description= "), std::string(149, 'x'));
        const std::vector<std::string> records = sink.Records();
        ASSERT_EQ(records.size(), 1u) << length;
        EXPECT_TRUE(records[0] ==
                    Record("410200001", 'I', "probe.C", "errno=0, " + DescriptionOf(0) + "|OTHER|" + description))
            << length;
    }
}

TEST_F(Error, OnlyPercentPercentAndPercentMActInTheRecord)
{
    SyslogSink sink;
    const std::string m = DescriptionOf(ENOSPC);
    const std::pair<std::string, std::string> cases[] = {
        {"100% full", "100% full"},
        {"%s%d%n%*c%5m%lm", "%s%d%n%*c%5m%lm"},
        {"why: %m", "why: " + m},
        {"%%", "%"},
        {"%%%", "%%"},
        {"%%%%", "%%"},
        {"%%m", "%m"},
        {"%%%m", "%" + m},
        {"%%%s", "%%s"},
        {"%", "%"},
        {"%1$s %.*f %hhn", "%1$s %.*f %hhn"},
    };
    for (const auto& c : cases) {
        errno = ENOSPC;
        reporter.MakeErrorLogEntry(1, 20, c.first.c_str(), Module, 1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(sink.Records(), std::vector<std::string>{Record("410200001", 'I', "probe.C", c.second)}) << c.first;
    }
    reporter.MakeErrorLogEntry(1, 20, "t", "$Id: a%sb%n,v", 1);
    EXPECT_EQ(sink.Records(), std::vector<std::string>{Record("410200001", 'I', "a%sb%n", "t")});
}

TEST_F(Error, PercentMInAReportIsTheErrorReported)
{
    SyslogSink sink;
    CaptureStderr([&] {
        errno = EMFILE;
        reporter._ReportErrorExt(ErrorReporter::WARNING_WITH_LOG, 20, "d %m", Module, 1, "a %m");
    });
    const std::string m = DescriptionOf(EMFILE);
    EXPECT_EQ(sink.Records(), std::vector<std::string>{
                                  Record("410200001", 'W', "probe.C", "errno=24, " + m + "|OTHER|d " + m + "|a " + m)});
}

TEST_F(Error, PercentSignsOfTheProgramAreData)
{
    char name[] = "/tmp/%s%n";
    char* const argv[] = {name, nullptr};
    ProgInfo::Initialize(1, argv, nullptr, "%d");
    SyslogSink sink;
    reporter.MakeErrorLogEntry(1, 20, "t", "m", 1);
    EXPECT_EQ(sink.Records(),
              std::vector<std::string>{std::string("%s%n: 410200001|Appl|1|S|I|1|0|0|0|0|0|Unknown|0|0|0|1#/tmp/%s%n "
                                                   "/tmp/%s%n: v%d(P) [") +
                                       ProgInfo::GetNodeNameLongVersion() + "]|t"});
}

TEST_F(Error, PanicLogsPrintsTheBannerAndAborts)
{
    SyslogSink sink;
    const int count = ErrorReporter::GetErrorCount();
    const ChildResult child = RunInChild([&] {
        errno = ENOMEM;
        reporter._ReportError(ErrorReporter::PANIC, ErrorReporter::OUT_OF_MEMORY, "no more", Module, 55);
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err, Displayed(StampOf(child.err), count + 1, Program, "PANIC", "Memory allocation failed.",
                                   "12 : " + DescriptionOf(ENOMEM), Module, 55, "no more") +
                             "********************************************\n"
                             "Fatal Error detected...Exiting /opt/orv/bin/orvd program\n"
                             "********************************************\n");
    EXPECT_EQ(sink.Records(), std::vector<std::string>{
                                  Record("410100055", 'F', "probe.C",
                                         "errno=12, " + DescriptionOf(ENOMEM) + "|Memory allocation failed.|no more")});
}

TEST_F(Error, PanicWithoutDisplayStillPrintsTheBanner)
{
    SyslogSink sink;
    reporter.DoNotDisplayErrorInfo();
    const ChildResult child = RunInChild([&] { reporter._ReportError(ErrorReporter::PANIC, 10, "d", Module, 1); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_EQ(child.err, "********************************************\n"
                         "Fatal Error detected...Exiting /opt/orv/bin/orvd program\n"
                         "********************************************\n");
    EXPECT_EQ(sink.Records().size(), 1u);
}

TEST_F(Error, DisplayIsAMatterOfTheObject)
{
    SyslogSink sink;
    ErrorReporter quiet;
    quiet.DoNotDisplayErrorInfo();
    const int count = ErrorReporter::GetErrorCount();
    EXPECT_EQ(CaptureStderr([&] {
                  quiet._ReportError(ErrorReporter::WARNING_WITH_LOG, 20, "silent", Module, 1);
                  quiet.Display();
              }),
              "");
    EXPECT_EQ(ErrorReporter::GetErrorCount(), count + 1);
    EXPECT_EQ(sink.Records().size(), 1u);
    const std::string shown = CaptureStderr([&] { reporter.Display(); });
    EXPECT_EQ(ReportField(shown, "  Description= "), "silent");
    quiet.DisplayErrorInfo();
    EXPECT_EQ(CaptureStderr([&] { quiet.Display(); }), shown);
}

TEST_F(Error, AFailedStandardErrorShowsNothing)
{
    const int count = ErrorReporter::GetErrorCount();
    const std::string text = CaptureStderr([&] {
        std::cerr.setstate(std::ios::failbit);
        reporter._ReportError(ErrorReporter::WARNING, 20, "d", Module, 1);
        std::cerr.clear();
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(ErrorReporter::GetErrorCount(), count + 1);
}

TEST_F(Error, TheStateOfTheStreamDoesNotChangeTheText)
{
    CaptureStderr([&] { reporter._ReportError(2, 20, "d", Module, 100); });
    const std::string plain = CaptureStderr([&] { reporter.Display(); });
    const std::string text = CaptureStderr([&] {
        std::cerr << std::hex << std::showbase;
        reporter.Display();
        std::cerr << std::dec << std::noshowbase;
    });
    EXPECT_EQ(text, plain);
}

TEST_F(Error, ConstructionClearsErrnoAndReturnStatusOnly)
{
    CaptureStderr([&] {
        errno = EIO;
        reporter._ReportError(ErrorReporter::WARNING, 20, "d", Module, 1);
    });
    const int count = ErrorReporter::GetErrorCount();
    errno = EIO;
    {
        ErrorReporter other;
        EXPECT_EQ(errno, 0);
    }
    EXPECT_EQ(ErrorReporter::GetReturnStatus(), 0);
    EXPECT_EQ(ErrorReporter::GetErrorCode(), EIO);
    EXPECT_EQ(ErrorReporter::GetErrorCount(), count);
}

TEST_F(Error, ClearErrorLeavesStatusTypeAndCount)
{
    CaptureStderr([&] {
        errno = EIO;
        reporter._ReportError(ErrorReporter::WARNING, ErrorReporter::TCP_ERROR, "d", Module, 1);
    });
    const int count = ErrorReporter::GetErrorCount();
    errno = EIO;
    ErrorReporter::ClearError();
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(ErrorReporter::GetErrorCode(), 0);
    EXPECT_EQ(ErrorReporter::GetReturnStatus(), ErrorReporter::WARNING);
    EXPECT_EQ(ErrorReporter::GetErrorCount(), count);
    const std::string shown = CaptureStderr([&] { reporter.Display(); });
    EXPECT_EQ(ReportField(shown, "  Error Type= "), "A tcp error occurred");
    EXPECT_EQ(ReportField(shown, "  Error Code= "), "Application Error.");
}

TEST_F(Error, SetReturnStatusGivesItsValue)
{
    EXPECT_EQ(ErrorReporter::SetReturnStatus(61), 61);
    EXPECT_EQ(ErrorReporter::GetReturnStatus(), 61);
    EXPECT_EQ(ErrorReporter::SetReturnStatus(0), 0);
}

TEST_F(Error, AReportKeepsErrnoAndDescriptors)
{
    SyslogSink sink;
    int after = 0;
    const int descriptors = OpenDescriptors();
    CaptureStderr([&] {
        for (int i = 0; i < 8; i++) { // fewer than the socket holds
            errno = EXDEV;
            reporter._ReportError(ErrorReporter::NOTICE_WITH_LOG, 20, "d", Module, 1);
            after += errno == EXDEV;
        }
    });
    EXPECT_EQ(after, 8);
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(Error, WithoutALogDaemonAReportIsOnlyDisplayed)
{
    unlink("/dev/log");
    const std::string text = CaptureStderr([&] {
        errno = EXDEV;
        reporter._ReportError(ErrorReporter::WARNING_WITH_LOG, 20, "unheard", Module, 1);
        EXPECT_EQ(errno, EXDEV);
    });
    EXPECT_EQ(ReportField(text, "  Description= "), "unheard");
    EXPECT_EQ(text.substr(text.size() - 9), "unheard\n\n");
}

TEST_F(Error, NullTextsCountAsEmpty)
{
    SyslogSink sink;
    const std::string text = CaptureStderr([&] {
        errno = 0;
        reporter._ReportErrorExt(ErrorReporter::NOTICE_WITH_LOG, 20, nullptr, nullptr, 1, nullptr);
    });
    EXPECT_EQ(text, Displayed(StampOf(text), ErrorReporter::GetErrorCount(), Program, "NOTICE_WITH_LOG", "OTHER",
                              "Application Error.", "", 1, ""));
    EXPECT_EQ(sink.Records(), std::vector<std::string>{
                                  Record("410200001", 'I', "Unknown", "errno=0, " + DescriptionOf(0) + "|OTHER|")});
}

} // namespace
