#include "Misc/client.h"

#include <ostream>

#include "Misc/detail/text.h"
#include "Misc/proginfo.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: client.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

ClientIdentity::ClientIdentity(short Object, const char* IPCServerName)
    : DestObject(Object), ClientVersion(), ClientProgram(), ClientNode()
{
    if (IPCServerName == nullptr)
        return;
    RegisterVersion(ProgInfo::GetVersion());
    RegisterProgramName(ProgInfo::GetFullProgramName());
    RegisterNodeName(ProgInfo::GetNodeName());
}

void ClientIdentity::RegisterVersion(const char* version) { zeloo::CopyText(ClientVersion, version); }

void ClientIdentity::RegisterProgramName(const char* program) { zeloo::CopyText(ClientProgram, program); }

void ClientIdentity::RegisterNodeName(const char* node) { zeloo::CopyText(ClientNode, node); }

void ClientIdentity::DumpIdentityOn(const char* className, std::ostream& out) const
{
    out << className << "::DestObject   : " << DestObject << '\n';
    out << className << "::ClientVersion: " << ClientVersion << '\n';
    out << className << "::ClientProgram: " << ClientProgram << '\n';
    out << className << "::ClientNode   : " << ClientNode << '\n';
}
