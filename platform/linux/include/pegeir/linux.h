/*
 * The Linux platform: processes of one user that talk through Unix datagram sockets.
 *
 * Each process has an id, its address in the message service, and a socket named after it in a
 * runtime directory of mode 0700.  Who sent a datagram is told by the socket it came from; a sender of
 * another user is refused.  Timers arrive as messages with receiver IID 3.  One event loop serves all
 * of it: run it, or watch its file descriptor from a loop of your own.
 *
 * For a consumer, pid is the appPid of its ND_LIB_FrameRegister and the component's id is the ndPid; any
 * memHandle and timerHandle but 0 will do.
 *
 * A process has at most one runtime, and all calls are made from one thread.  Together with
 * libpegeir-linux the platform contract of pegeir/platform.h is complete.
 */
#ifndef PEGEIR_LINUX_H
#define PEGEIR_LINUX_H

#include <pegeir/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Receives each message, from peers and from the timer service, and hands it to ND_LIB_MsgProcess or
 * to whom it may concern.  message is the data area; it is valid during the call and released after
 * it.
 */
typedef void (*PEGEIR_LinuxMessageFunc)(void *context, void *message);

/* What a process is in the message service. */
typedef struct PEGEIR_LinuxConfig {
    uint32_t pid;          /* the id of this process, not 0 */
    const char *directory; /* runtime directory, or null for the one of PEGEIR_LinuxDirectory */
    PEGEIR_LinuxMessageFunc onMessage;
    void *context; /* handed to onMessage */
} PEGEIR_LinuxConfig;

/* Returns the runtime directory that holds when none is given: $PEGEIR_RUNTIME_DIR, else
 * $XDG_RUNTIME_DIR/pegeir, else pegeir in /run/user/<uid>, for root in /run, and if there is no such folder
 * /tmp/pegeir-<uid>, which anybody may have made before.  The text is valid until the next call. */
PEGEIR_PLATFORM_API const char *PEGEIR_LinuxDirectory(void);

/*
 * Opens the runtime: makes the directory with mode 0700 if it is not there, refuses one that is not
 * ours alone, takes the id and listens.  *config is copied.
 * Returns 0, or -1 with what is wrong, where and what to do about it as text in error (errorSize
 * bytes, cut to fit).  An id in use by a living process is refused; what a dead one left behind is
 * taken over.
 */
PEGEIR_PLATFORM_API int PEGEIR_LinuxOpen(const PEGEIR_LinuxConfig *config, char *error, size_t errorSize);

/*
 * Opens descriptors 0 to 2 on /dev/null where they are closed, so that no file or socket gets their numbers and
 * with them what others write to standard output and error.  Opening the runtime does it; a program that opens
 * something else before, or writes a log, calls this first of all.
 */
PEGEIR_PLATFORM_API void PEGEIR_LinuxOpenStandardStreams(void);

/* Closes the runtime, removes the socket, deletes all timers: release library instances before, or they
 * cannot find theirs.  May be called from any callback; harmless when it is not open. */
PEGEIR_PLATFORM_API void PEGEIR_LinuxClose(void);

/*
 * Names the file that the next PEGEIR_LinuxOpen begins to record into, until PEGEIR_LinuxClose: what is sent
 * and received, peers and timers.  "" is for none; null, as at the start, for $PEGEIR_CAPTURE.  In the name
 * %p stands for the process's number, %i for its id.  A file that cannot be written, now or later, is
 * reported (PEGEIR_LinuxOnReport) and has no other consequence.  docs/capture.md has the format.
 */
PEGEIR_PLATFORM_API void PEGEIR_LinuxCapture(const char *file);

/* Returns a file descriptor that polls readable whenever PEGEIR_LinuxDispatch has something to do. */
PEGEIR_PLATFORM_API int PEGEIR_LinuxFd(void);

/* Waits up to timeoutMs milliseconds (0: not at all, -1: for ever) and handles what is there, a bounded
 * amount at a time.  Returns 0, or -1 with errno when waiting failed; a signal is no failure.  EADDRINUSE says
 * that the directory was cleared and another process has taken our id since: the runtime has to be closed. */
PEGEIR_PLATFORM_API int PEGEIR_LinuxDispatch(int timeoutMs);

/* Dispatches until PEGEIR_LinuxStop, which may be called from any callback and before the run, or until
 * the runtime is closed.  Returns as Dispatch. */
PEGEIR_PLATFORM_API int PEGEIR_LinuxRun(void);
PEGEIR_PLATFORM_API void PEGEIR_LinuxStop(void);

/* Tells that a peer has come (available 1) or gone (0). */
typedef void (*PEGEIR_LinuxPeerFunc)(void *context, uint32_t peer, int available);

/*
 * Watches whether the process with id peer is there, however it ends.  onPeer is called from the event
 * loop: soon after the call with available 1 if it is there, then on every change.  A peer that was
 * replaced between two looks is reported gone and come.  A later call for the same peer takes the place
 * of an earlier one; a null onPeer ends the watch.  So is one that asks this process to start over, and each
 * one after the directory was cleared and this process has taken its id again: neither side knows then what
 * it has missed.  Returns 0, or -1 with errno.
 */
PEGEIR_PLATFORM_API int PEGEIR_LinuxWatchPeer(uint32_t peer, PEGEIR_LinuxPeerFunc onPeer, void *context);

/*
 * Tells a peer to start over with this process: if it watches us, it is told that we have gone and come, and
 * its library registers and downloads anew.  For a component that has lost track of one consumer, and has
 * nothing to tell the others.  Returns 0 or a PEGEIR_LINUX_SEND_ code.
 */
PEGEIR_PLATFORM_API uint32_t PEGEIR_LinuxStartOver(uint32_t peer);

/* Called once when a peer whose receive queue was full can take a message again, or is gone. */
typedef void (*PEGEIR_LinuxWritableFunc)(void *context, uint32_t peer);

/* Asks for one such call, in place of an earlier one for the same peer.  Returns 0, or -1 with errno
 * when the peer is not there. */
PEGEIR_PLATFORM_API int PEGEIR_LinuxWhenWritable(uint32_t peer, PEGEIR_LinuxWritableFunc onWritable,
                                                 void *context);

/* Called when fd is readable. */
typedef void (*PEGEIR_LinuxFdFunc)(void *context, int fd);

/* Add and remove a file descriptor of the caller's to the event loop; it stays the caller's.  Add
 * returns 0, or -1 with errno.  Remove may be called from any callback. */
PEGEIR_PLATFORM_API int PEGEIR_LinuxAddFd(int fd, PEGEIR_LinuxFdFunc onReadable, void *context);
PEGEIR_PLATFORM_API void PEGEIR_LinuxRemoveFd(int fd);

/* Called for each failed assertion of the library in place of the default, a line on standard error;
 * null restores the default. */
typedef void (*PEGEIR_LinuxAssertFunc)(const char *source, uint32_t line, uint32_t value);
PEGEIR_PLATFORM_API void PEGEIR_LinuxOnAssert(PEGEIR_LinuxAssertFunc onAssert);

/* Called with a line about something refused or lost (a message of a stranger, a cleared directory) in
 * place of the default, which writes it to standard error; null restores the default.  Refused messages
 * are counted and reported every few seconds at most. */
typedef void (*PEGEIR_LinuxReportFunc)(const char *line);
PEGEIR_PLATFORM_API void PEGEIR_LinuxOnReport(PEGEIR_LinuxReportFunc onReport);

/* Error codes of ZEP_SEND_MSG on this platform. */
enum {
    PEGEIR_LINUX_SEND_FULL = 1,     /* the peer cannot take a message now */
    PEGEIR_LINUX_SEND_NO_PEER = 2,  /* no process has that id */
    PEGEIR_LINUX_SEND_TOO_LONG = 3, /* the message exceeds what a datagram carries */
    PEGEIR_LINUX_SEND_FAILED = 4    /* anything else; errno tells */
};

#ifdef __cplusplus
}
#endif

#endif
