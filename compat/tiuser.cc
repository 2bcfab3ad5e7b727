// SPDX-License-Identifier: BSD-2-Clause
// The calls of <tiuser.h>, under the names that it gives them.
#include <cstddef>

#include <tiuser.h>

#include "compat/types.h"
#include "svr4/tli.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tiuser.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

SAME_PLACE(t_bind, qlen);
SAME_PLACE(t_call, sequence);
SAME_PLACE(t_discon, sequence);
SAME_PLACE(t_info, servtype);
SAME_VALUE(TBADADDR);
SAME_VALUE(TBADOPT);
SAME_VALUE(TACCES);
SAME_VALUE(TBADF);
SAME_VALUE(TNOADDR);
SAME_VALUE(TOUTSTATE);
SAME_VALUE(TBADSEQ);
SAME_VALUE(TSYSERR);
SAME_VALUE(TLOOK);
SAME_VALUE(TBADDATA);
SAME_VALUE(TBUFOVFLW);
SAME_VALUE(TFLOW);
SAME_VALUE(TNODATA);
SAME_VALUE(TNODIS);
SAME_VALUE(TNOUDERR);
SAME_VALUE(TBADFLAG);
SAME_VALUE(TNOREL);
SAME_VALUE(TNOTSUPPORT);
SAME_VALUE(TSTATECHNG);
SAME_VALUE(TNOSTRUCTYPE);
SAME_VALUE(TBADNAME);
SAME_VALUE(TBADQLEN);
SAME_VALUE(TADDRBUSY);
SAME_VALUE(TINDOUT);
SAME_VALUE(TPROVMISMATCH);
SAME_VALUE(TRESQLEN);
SAME_VALUE(TRESADDR);
SAME_VALUE(TQFULL);
SAME_VALUE(TPROTO);
SAME_VALUE(T_LISTEN);
SAME_VALUE(T_CONNECT);
SAME_VALUE(T_DATA);
SAME_VALUE(T_EXDATA);
SAME_VALUE(T_DISCONNECT);
SAME_VALUE(T_UDERR);
SAME_VALUE(T_ORDREL);
SAME_VALUE(T_UNINIT);
SAME_VALUE(T_UNBND);
SAME_VALUE(T_IDLE);
SAME_VALUE(T_OUTCON);
SAME_VALUE(T_INCON);
SAME_VALUE(T_DATAXFER);
SAME_VALUE(T_OUTREL);
SAME_VALUE(T_INREL);
SAME_VALUE(T_BIND);
SAME_VALUE(T_OPTMGMT);
SAME_VALUE(T_CALL);
SAME_VALUE(T_DIS);
SAME_VALUE(T_UNITDATA);
SAME_VALUE(T_UDERROR);
SAME_VALUE(T_INFO);
SAME_VALUE(T_ADDR);
SAME_VALUE(T_OPT);
SAME_VALUE(T_UDATA);
SAME_VALUE(T_ALL);
SAME_VALUE(T_MORE);
SAME_VALUE(T_EXPEDITED);
SAME_VALUE(T_COTS);
SAME_VALUE(T_COTS_ORD);
SAME_VALUE(T_CLTS);

using zeloo::As;

int t_accept(int fd, int resfd, const struct t_call* call)
{
    return svr4::t_accept(fd, resfd, As<struct svr4::t_call>(call));
}

char* t_alloc(int fd, int struct_type, int fields)
{
    return static_cast<char*>(svr4::t_alloc(fd, struct_type, fields));
}

int t_bind(int fd, const struct t_bind* req, struct t_bind* ret)
{
    return svr4::t_bind(fd, As<struct svr4::t_bind>(req), As<struct svr4::t_bind>(ret));
}

int t_close(int fd) { return svr4::t_close(fd); }

int t_connect(int fd, const struct t_call* sndcall, struct t_call* rcvcall)
{
    return svr4::t_connect(fd, As<struct svr4::t_call>(sndcall), As<struct svr4::t_call>(rcvcall));
}

void t_error(const char* errmsg) { svr4::t_error(errmsg); }

int t_free(void* ptr, int struct_type) { return svr4::t_free(ptr, struct_type); }

int t_getinfo(int fd, struct t_info* info) { return svr4::t_getinfo(fd, As<struct svr4::t_info>(info)); }

int t_getstate(int fd) { return svr4::t_getstate(fd); }

int t_listen(int fd, struct t_call* call) { return svr4::t_listen(fd, As<struct svr4::t_call>(call)); }

int t_look(int fd) { return svr4::t_look(fd); }

int t_open(const char* path, int oflag, struct t_info* info)
{
    return svr4::t_open(path, oflag, As<struct svr4::t_info>(info));
}

int t_rcv(int fd, char* buf, unsigned nbytes, int* flags) { return svr4::t_rcv(fd, buf, nbytes, flags); }

int t_rcvconnect(int fd, struct t_call* call) { return svr4::t_rcvconnect(fd, As<struct svr4::t_call>(call)); }

int t_rcvdis(int fd, struct t_discon* discon) { return svr4::t_rcvdis(fd, As<struct svr4::t_discon>(discon)); }

int t_rcvrel(int fd) { return svr4::t_rcvrel(fd); }

int t_snd(int fd, const char* buf, unsigned nbytes, int flags) { return svr4::t_snd(fd, buf, nbytes, flags); }

int t_snddis(int fd, const struct t_call* call) { return svr4::t_snddis(fd, As<struct svr4::t_call>(call)); }

int t_sndrel(int fd) { return svr4::t_sndrel(fd); }

char* t_strerror(int errnum) { return const_cast<char*>(svr4::t_strerror(errnum)); }

int t_sync(int fd) { return svr4::t_getstate(fd); }

int t_unbind(int fd) { return svr4::t_unbind(fd); }
