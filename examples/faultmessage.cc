// SPDX-License-Identifier: BSD-2-Clause
#include "faultmessage.h"

#include "Misc/Dates.h"

FaultMessage::FaultMessage() : transformer("deinost", "%d %i %e, %s: %t%o", "FAULT_MESSAGE") {}

CString FaultMessage::Text(const char* happened, const FaultSummary& fault)
{
    transformer.reset();
    for (char directive; transformer.nextCharacter(directive);)
        Put(directive, happened, fault);
    CString text;
    transformer.GetOutput(text);
    return text;
}

void FaultMessage::Put(char directive, const char* happened, const FaultSummary& fault)
{
    switch (directive) {
    case 'd': transformer.OutputTime(Dates::CurrentTime()); break;
    case 'e': transformer.Output(happened); break;
    case 'i': transformer.Output(fault.hdr.myId); break;
    case 'n': transformer.Output(fault.hdr.myId.GetNodeName()); break;
    case 's': transformer.Output(fault.state); break;
    case 't': transformer.Output(fault.text); break;
    case 'o':
        for (unsigned i = 0; i < fault.options.Quantity(); i++) {
            const Option& option = *fault.options[static_cast<int>(i)];
            transformer.Output(CString(" ") + option.Name + "=" + option.Value);
        }
        break;
    }
}
