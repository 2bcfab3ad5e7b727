/* SPDX-License-Identifier: BSD-2-Clause */
/* net.C: a server and its client, who talk about the time */
#include <iostream.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <stdlib.h>
#include <string.h>
#include <fcntl.h>
#include <unistd.h>
#include <tiuser.h>

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "watch.h"

static void
bad(char *what)
{
	t_error(what);
	exit(1);
}

/* an endpoint with an address of its own, which listens with a queue; the address, if it is wanted, for t_free */
static int
bound(unsigned qlen, struct t_bind **got)
{
	struct t_bind *req;
	int fd;

	if ((fd = t_open(tcp_device(), O_RDWR, (struct t_info *)0)) < 0)
		bad("t_open");
	if ((req = (struct t_bind *)t_alloc(fd, T_BIND, T_ALL)) == NULL)
		bad("t_alloc");
	if (got != NULL && (*got = (struct t_bind *)t_alloc(fd, T_BIND, T_ALL)) == NULL)
		bad("t_alloc");
	req->addr.len = 0;
	req->qlen = qlen;
	if (t_bind(fd, req, got != NULL ? *got : (struct t_bind *)0) < 0)
		bad("t_bind");
	t_free((char *)req, T_BIND);
	return fd;
}

/* takes one connection, and answers what it asks */
static void
serve(int fd)
{
	struct t_call *call;
	char question[256];
	Buffer answer;
	int n, conn, flags;

	if ((call = (struct t_call *)t_alloc(fd, T_CALL, T_ALL)) == NULL)
		bad("t_alloc");
	if (t_listen(fd, call) < 0)
		bad("t_listen");
	conn = bound(0, NULL);
	if (t_accept(fd, conn, call) < 0)
		bad("t_accept");
	t_free((char *)call, T_CALL);
	if ((n = t_rcv(conn, question, sizeof question - 1, &flags)) < 0)
		bad("t_rcv");
	question[n] = '\0';
	{
		ZELostream out(answer);
		out << CString(question) << CString(stamp(NOON)) << (short)42;
	}
	if (t_snd(conn, (char *)answer.GetCString(), answer.Size(), 0) < 0)
		bad("t_snd");
	if (t_sndrel(conn) < 0)
		bad("t_sndrel");
	/* the client goes too */
	if (t_rcv(conn, question, sizeof question, &flags) != -1 || t_errno != TLOOK || t_look(conn) != T_ORDREL)
		bad("no release");
	t_rcvrel(conn);
	t_close(conn);
	t_close(fd);
}

static void
ask(struct t_bind *server)
{
	struct t_call call;
	char part[8];
	Buffer answer;
	CString question, when;
	short number;
	int fd, n, flags;

	fd = bound(0, NULL);
	memset(&call, 0, sizeof call);
	call.addr = server->addr;
	if (t_connect(fd, &call, (struct t_call *)0) < 0)
		bad("t_connect");
	t_snd(fd, "what time is it?", 16, 0);
	while ((n = t_rcv(fd, part, sizeof part, &flags)) > 0)
		answer.Append(part, n);
	switch (t_errno == TLOOK ? t_look(fd) : 0) {
	case T_ORDREL:
		cout << "released in order" << endl;
		t_rcvrel(fd);
		t_sndrel(fd);
		break;
	case T_DISCONNECT:
		cout << "broken off" << endl;
		t_rcvdis(fd, (struct t_discon *)0);
		break;
	default:
		bad("t_rcv");
	}
	ZEListream in(answer);
	in >> question >> when >> number;
	cout << question << " " << when << ", " << number << endl;
	t_close(fd);
}

int
tell_conversation()
{
	struct t_bind *server;
	int fd, status;
	pid_t pid;

	fd = bound(1, &server);
	if ((pid = fork()) == 0) {
		serve(fd);
		_exit(0);
	}
	t_close(fd);
	ask(server);
	waitpid(pid, &status, 0);
	t_free((char *)server, T_BIND);
	return status;
}

/* nobody listens where a listener was */
void
tell_refusal()
{
	struct t_bind *server;
	struct t_call call;
	struct t_discon discon;
	int fd;

	t_close(bound(1, &server));
	fd = bound(0, NULL);
	memset(&call, 0, sizeof call);
	call.addr = server->addr;
	if (t_connect(fd, &call, (struct t_call *)0) == -1) {
		cout << "not connected: " << why_not() << endl;
		memset(&discon, 0, sizeof discon);
		if (t_look(fd) == T_DISCONNECT && t_rcvdis(fd, &discon) == 0)
			cout << "the system says: " << strerror(discon.reason) << endl;
	}
	t_free((char *)server, T_BIND);
	t_close(fd);
	if (t_open("/dev/starlan", O_RDWR, (struct t_info *)0) == -1)
		t_error("/dev/starlan");
	t_errno = 99;
	cout << "99: " << why_not() << endl;
}
