/* SPDX-License-Identifier: BSD-2-Clause */
/* sig.C: what signals do to watch, and the process group of its children */
#include <iostream.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>
#include <stdlib.h>
#include <errno.h>

#include "watch.h"

static int caught;

static void
catcher(int sig)
{
	caught = sig;
}

void
tell_signals()
{
	void (*before)(int);
	int ends[2], status;
	pid_t pid;
	char c;

	before = signal(SIGUSR2, catcher);
	if (before != SIG_DFL)
		cout << "somebody else has SIGUSR2" << endl;
	kill(getpid(), SIGUSR2);
	cout << "caught " << (caught == SIGUSR2 ? "SIGUSR2" : "nothing") << ", ";
	cout << (signal(SIGUSR2, SIG_DFL) == SIG_DFL ? "once" : "for ever") << endl;

	/* the second one ends a child that does not ask for it again */
	if ((pid = fork()) == 0) {
		signal(SIGUSR2, catcher);
		kill(getpid(), SIGUSR2);
		kill(getpid(), SIGUSR2);
		_exit(0);
	}
	waitpid(pid, &status, 0);
	cout << "the second is " << (WIFSIGNALED(status) && WTERMSIG(status) == SIGUSR2 ? "fatal" : "caught") << endl;

	/* a read ends with the alarm */
	pipe(ends);
	signal(SIGALRM, catcher);
	alarm(1);
	if (read(ends[0], &c, 1) == -1 && errno == EINTR)
		cout << "the alarm ends a read" << endl;
	close(ends[0]);
	close(ends[1]);

	/* children that nobody waits for are none */
	signal(SIGCLD, SIG_IGN);
	if ((pid = fork()) == 0)
		_exit(0);
	if (wait(&status) == -1 && errno == ECHILD)
		cout << "children leave nothing" << endl;
	signal(SIGCLD, SIG_DFL);
}

void
tell_group()
{
	int status;
	pid_t pid;

	if ((pid = fork()) == 0)
		_exit(setpgrp() == getpid() && getsid(0) == getpid() ? 0 : 1);
	waitpid(pid, &status, 0);
	cout << "a child leads " << (status == 0 ? "group and session" : "nothing") << endl;
}
