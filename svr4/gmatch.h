// Shell patterns.
#ifndef SVR4_GMATCH_H
#define SVR4_GMATCH_H

namespace svr4 {

/// gmatch(3G) of System V: non-zero when `str` matches the shell pattern `pattern`. "*" and "?" also match "/".
int gmatch(const char* str, const char* pattern);

} // namespace svr4

#endif
