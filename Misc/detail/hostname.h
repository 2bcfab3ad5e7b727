// The official names of hosts.
#ifndef MISC_DETAIL_HOSTNAME_H
#define MISC_DETAIL_HOSTNAME_H

namespace zeloo {

/// The official name of `host`, which is a dotted address or a name, in the host tables or the name service; null when
/// they do not know it, and for null. It belongs to the C library and is valid until the next look-up. May wait for the
/// name service.
char* OfficialHostName(const char* host);

} // namespace zeloo

#endif
