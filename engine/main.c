/*
 * main.c - the corvalin program of a real system (the static binary of
 * the 32-bit target): the CLI on the real control device.
 */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <string.h>

#include "cli.h"

static volatile int stop;

static void on_signal(int sig)
{
	(void)sig;
	stop = 1;
}

int main(int argc, char **argv)
{
	struct cvb_platform pf;
	struct sigaction sa;

	memset(&sa, 0, sizeof(sa));
	sa.sa_handler = on_signal;
	sigaction(SIGINT, &sa, NULL);
	sigaction(SIGTERM, &sa, NULL);
	cvb_platform_posix(&pf);
	pf.stop = &stop;
	return cvb_cli_main(argc - 1, argv + 1, &pf);
}
