// SPDX-License-Identifier: BSD-2-Clause
// What the daemon writes into its log about a fault.
#ifndef EXAMPLES_FAULTMESSAGE_H
#define EXAMPLES_FAULTMESSAGE_H

#include "Misc/strxform.h"

#include "fault.h"

/// Expands a template for each message. The template comes from the environment variable FAULT_MESSAGE, with these
/// directives: %d the time now, %e what happened, %i the fault, %n its node, %o its options, %s its state, %t its text.
/// Times have the format of the variable CFTIME (see strftime(3)).
class FaultMessage {
public:
    FaultMessage();
    /// The message for `fault`, to which `happened` ("raised") has happened.
    CString Text(const char* happened, const FaultSummary& fault);

private:
    void Put(char directive, const char* happened, const FaultSummary& fault);

    StringTransformer transformer;
};

#endif
