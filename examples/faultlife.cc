// SPDX-License-Identifier: BSD-2-Clause
#include "faultlife.h"

FaultLife::FaultLife()
{
    State created(FirstFaultState, "New");
    State working("working", "Being worked on");
    State waiting("waiting_escalation", "Waiting for escalation");
    State escalated("escalated", "Escalated to the support centre");
    State solved("solved", "Solved");
    State closed("closed", "Closed");

    AddTransition(created, working, 1);
    AddTransition(created, waiting, 1);
    AddTransition(working, waiting, 1);
    AddTransition(waiting, escalated, 0);
    AddTransition(waiting, working, 1);
    AddTransition(working, solved, 1);
    AddTransition(escalated, solved, 1);
    AddTransition(solved, working, 1);
    AddTransition(solved, closed, 1);
}
