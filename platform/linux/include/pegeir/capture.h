/*
 * The packets of a recording: what stands in front of each one's data.  docs/capture.md is the whole
 * description.
 *
 *   packet := head data
 *   head   := 'P' 'G' 'C' version:u8 kind:u8 direction:u8 headSize:u16 sender:u32 receiver:u32
 *             interface:u32 subInterface:u32 receiverIid:u32 result:u32 seconds:u32 nanoseconds:u32
 *             number:u32
 *   start  := processId:u32 utcOffset:i32 program:text directory:text
 *   text   := length:u16 bytes
 *   peer   := available:u32                             1 or 0
 *   expiry := timerId:u32
 *   timer  := request:u32 timerId:u32 periodMs:u32      timerId 0: none was made
 *
 * All numbers are big-endian.  A reader takes the data from byte headSize on, so that a later version
 * can add to the head.
 */
#ifndef PEGEIR_CAPTURE_H
#define PEGEIR_CAPTURE_H

enum { PEGEIR_CAPTURE_LINKTYPE = 147, PEGEIR_CAPTURE_VERSION = 1 };

/* Where the fields of the head are. */
enum {
    PEGEIR_CAPTURE_AT_MAGIC = 0,
    PEGEIR_CAPTURE_AT_VERSION = 3,
    PEGEIR_CAPTURE_AT_KIND = 4,
    PEGEIR_CAPTURE_AT_DIRECTION = 5,
    PEGEIR_CAPTURE_AT_HEAD_SIZE = 6,
    PEGEIR_CAPTURE_AT_SENDER = 8,
    PEGEIR_CAPTURE_AT_RECEIVER = 12,
    PEGEIR_CAPTURE_AT_INTERFACE = 16,
    PEGEIR_CAPTURE_AT_SUB_INTERFACE = 20,
    PEGEIR_CAPTURE_AT_RECEIVER_IID = 24,
    PEGEIR_CAPTURE_AT_RESULT = 28,
    PEGEIR_CAPTURE_AT_SECONDS = 32,
    PEGEIR_CAPTURE_AT_NANOSECONDS = 36,
    PEGEIR_CAPTURE_AT_NUMBER = 40,
    PEGEIR_CAPTURE_HEAD_SIZE = 44
};

/* Kinds. */
enum {
    PEGEIR_CAPTURE_START = 1,   /* the recording begins */
    PEGEIR_CAPTURE_END = 2,     /* it ends in order; no data */
    PEGEIR_CAPTURE_MESSAGE = 3, /* a message of a peer or to one; the data is the message */
    PEGEIR_CAPTURE_PEER = 4,    /* the process is told that a peer has come or gone */
    PEGEIR_CAPTURE_EXPIRY = 5,  /* a message of the timer service */
    PEGEIR_CAPTURE_TIMER = 6,   /* a request to the timer service */
    PEGEIR_CAPTURE_CLOCK = 7    /* the clock was read; no data */
};

/* Directions, as the recording process sees them. */
enum { PEGEIR_CAPTURE_IN = 1, PEGEIR_CAPTURE_OUT = 2 };

/* Requests of PEGEIR_CAPTURE_TIMER. */
enum { PEGEIR_CAPTURE_TIMER_CREATE = 1, PEGEIR_CAPTURE_TIMER_DELETE = 2 };

#endif
