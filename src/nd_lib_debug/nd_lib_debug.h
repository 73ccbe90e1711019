// Diagnostics: two trace boxes an instance, and the reports that a consumer reads page by page.
//
// Box 0 receives a line for every failure, box 1 one for every notable event.  A box is made by its
// first line and grows by copying until it has its full size.  Tracing never fails its caller.
#ifndef PEGEIR_ND_LIB_DEBUG_H
#define PEGEIR_ND_LIB_DEBUG_H

#include <pegeir/pegeir.h>
#include <pegeir/platform.h>

enum ND_LIB_BlackBoxIndex : uint32_t {
    ND_LIB_BLACKBOX_ASSERT = 0,
    ND_LIB_BLACKBOX_INFO = 1,
    ND_LIB_BLACKBOX_MAX = 2
};

enum ND_LIB_DiagType : uint32_t {
    ND_LIB_DIAG_LOCAL_INFO = 0,
    ND_LIB_DIAG_FSM_INFO = 1,
    ND_LIB_DIAG_STATISTIC = 2,
    ND_LIB_DIAG_BLACKBOX_ASSERT = 3,
    ND_LIB_DIAG_BLACKBOX_INFO = 4
};

constexpr uint32_t ND_LIB_DIAG_MORE = 9; // a black-box report has more pages

// The line buffer of a platform box, which a line is formatted in.
using ND_LIB_BlackBoxLine = char[BLACK_BOX_LINE_SIZE];

// Sizes in units of 1024 bytes.
struct ND_LIB_BlackBoxDesc {
    void *bbHandle;    // the platform's box, null before the first line
    uint16_t initSize; // at creation
    uint16_t stepSize; // growth
    uint16_t curSize;
    uint16_t maxSize; // does not grow any more once curSize has reached it
};

extern "C" {

ND_LIB_API extern const char *const g_ndLibBlackBoxName[ND_LIB_BLACKBOX_MAX + 1];

// ---- Black boxes ----

// Sets both descriptors to their defaults; makes no box.
ND_LIB_API void ND_LIB_BlackboxInit(ND_LIB_Instance *instance);

// Destroys the boxes that were made.
ND_LIB_API void ND_LIB_BlackboxFree(ND_LIB_Instance *instance);

// Traces one line: time stamp, the formatted text, a line feed; cut to 255 bytes.  The line is dropped
// when box or clock cannot be had; a missing instance or a box above 1 is ignored.
ND_LIB_API void ND_LIB_BlackBox(ND_LIB_Instance *instance, uint32_t box, const char *format, ...)
    ND_LIB_PRINTF(3, 4);

// Lets the box grow if it is to, and writes the line.  Returns ND_LIB_WriteBlackBox's result, 0 for a
// box above 1.
ND_LIB_API int32_t ND_LIB_WriteBlackBoxEx(uint32_t box, ND_LIB_Instance *instance, const char *format,
                                          va_list arguments) ND_LIB_PRINTF(3, 0);

// Formats the line in the box's own buffer and writes it.  Returns the platform's result, or -1 when
// nothing could be written.
ND_LIB_API int32_t ND_LIB_WriteBlackBox(void *handle, const char *format, va_list arguments)
    ND_LIB_PRINTF(2, 0);

// Returns 1 when the box is to grow before its next line, else 0.
ND_LIB_API uint32_t ND_LIB_CheckBlackBoxNeedExpand(const ND_LIB_BlackBoxDesc *desc);

// Replaces the box by a larger one with the same lines and the same read position.  When anything is
// short, the old box stays.
ND_LIB_API void ND_LIB_ExpandBlackBox(ND_LIB_BlackBoxDesc *desc, ND_LIB_Instance *instance);

// Writes the distance between gmt and local time as "-hh:mm" into text.  Returns 0, or 1 when it could
// not be formatted.
ND_LIB_API uint32_t ND_LIB_GetTimeZone(SysTime gmt, SysTime local, char *text, uint32_t length);

// Reads on in a box, into buffer behind the *count bytes already there, leaving one byte free.  Adds
// what was read to *count and keeps it in diagnoseReadLen, 0 when there is nothing more.  A box above
// 1 is ignored.
ND_LIB_API void ND_LIB_ReadBlackBox(ND_LIB_Instance *instance, uint32_t box, char *buffer, uint32_t length,
                                    uint32_t *count);

// ---- Reports ----

// Appends text at *position and moves it on; what does not fit is cut.  The last byte of buffer is never
// written.
ND_LIB_API void ND_LIB_Printf(uint32_t *position, char *buffer, uint32_t bufferLen, const char *format, ...)
    ND_LIB_PRINTF(4, 5);

// Writes one page of the report that is next.  Returns ND_LIB_DIAG_MORE when a black-box report goes on,
// else 0.
ND_LIB_API uint32_t ND_LIB_ShowDiagnoseInfoByType(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                                  uint32_t *pageLen);

// The reports of one page; their length is added to *pageLen.
ND_LIB_API void ND_LIB_Show_LocalInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                      uint32_t *pageLen);
ND_LIB_API void ND_LIB_ShowFsmInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                   uint32_t *pageLen);
ND_LIB_API void ND_LIB_ShowStatisticInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                         uint32_t *pageLen);

// The reports of one or more pages; *pageLen is set.  Return ND_LIB_DIAG_MORE or ND_LIB_ERR_DIAG_END.
ND_LIB_API uint32_t ND_LIB_ShowBlackboxAssert(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                              uint32_t *pageLen);
ND_LIB_API uint32_t ND_LIB_ShowBlackboxInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                            uint32_t *pageLen);

// Parts of the first report, appended at *position.
ND_LIB_API void ND_LIB_ShowConsumerInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                        uint32_t *position);
ND_LIB_API void ND_LIB_ShowSubcribeInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                        uint32_t *position);
ND_LIB_API void ND_LIB_ShowBlackboxSize(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                        uint32_t *position);
ND_LIB_API void ND_LIB_CheckBlackBoxInfo(void *handle, uint32_t *position, char *buffer, uint32_t bufferLen);

// Makes the next page the first one of the first report.
ND_LIB_API void ND_LIB_ClearDiagnosePosion(ND_LIB_Instance *instance);

} // extern "C"

namespace pegeir::debug {

// Whether ND_LIB_Printf cannot add to the position bytes of a page of bufferLen any more: one byte of a
// page is its terminating zero, and one stays unused.
constexpr bool IsFull(uint32_t position, uint32_t bufferLen) {
    return bufferLen <= 2 || position >= bufferLen - 2;
}

} // namespace pegeir::debug

#endif
