// SPDX-License-Identifier: BSD-2-Clause
// The life of a fault: the states that it goes through.
#ifndef EXAMPLES_FAULTLIFE_H
#define EXAMPLES_FAULTLIFE_H

#include "Misc/state.h"

#include "fault.h"

/// A fault is "new" (FirstFaultState), then "working", perhaps "waiting_escalation" and "escalated", "solved" and at
/// last "closed". An operator is offered all moves but the one to "escalated", which is for the program that talks to
/// the support centre.
class FaultLife : public StateMachine {
public:
    FaultLife();
};

#endif
