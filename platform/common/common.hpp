// What every platform shares: the parts of pegeir/platform.h that need no operating system.
//
// Tree, memory and text functions come twice: here, for a platform that puts something of its own around
// them, and in contract.cpp under the names of the contract (KAL_RBT_*, memcpy_s, ...), for one that links
// pegeir_common_contract and is done.
//
// Black boxes need memory, which is the platform's to account for.  So the box is given here as
// operations on memory that the platform has allocated, and each platform defines CreateBlackBox and
// its companions as a few lines around them.
#ifndef PEGEIR_COMMON_COMMON_HPP
#define PEGEIR_COMMON_COMMON_HPP

#include <pegeir/platform.h>

#include <cstddef>
#include <cstdint>

namespace pegeir::common {

// Returns the bytes of memory that a box storing `size` bytes of lines takes, or 0 when no such box
// can be made because its lengths would not fit the int32_t results of the contract.
[[nodiscard]] std::size_t BoxObjectSize(std::uint32_t size);

// Makes a new, empty box in `memory`, which holds BoxObjectSize(size) bytes aligned for any type, and
// returns it: the same address.  The box needs no destruction before its memory is released.
void *BoxMake(void *memory, std::uint32_t size);

// WriteBlackBox.  A write larger than the box stores its newest whole lines.  Fails with -1, the box
// unchanged, when object or bytes is null or not even the last line fits.
[[nodiscard]] std::int32_t BoxWrite(void *object, const void *bytes, std::uint32_t length);

// ReadBlockFromBlackBox.  What a reader gets is made of whole lines however the box changes between
// two reads: of a line that it has begun and that is dropped then, it still gets the rest (cut to
// BLACK_BOX_LINE_SIZE bytes); lines dropped before it came to them are missing altogether.  Any
// answer of 0, also to a read of 0 bytes, rewinds to the oldest line.  Fails with -1 when object or
// buffer is null.
[[nodiscard]] std::int32_t BoxRead(void *object, void *buffer, std::uint32_t length);

// GetBlackBoxContentLength, GetBlackBoxBufferLen; 0 for a null box.
[[nodiscard]] std::int32_t BoxContentLength(const void *object);
[[nodiscard]] std::int32_t BoxCapacity(const void *object);

// KAL_RBT_FirstNode, KAL_RBT_NextNode, KAL_RBT_RemoveNode, KAL_RBT_InsertNodeFixup.
[[nodiscard]] KAL_RBT_Node *TreeFirst(KAL_RBT_Tree *tree);
[[nodiscard]] KAL_RBT_Node *TreeNext(KAL_RBT_Tree *tree, KAL_RBT_Node *node);
void TreeRemove(KAL_RBT_Tree *tree, KAL_RBT_Node *node);
void TreeInsertFixup(KAL_RBT_Tree *tree, KAL_RBT_Node *node);

// memcpy_s, memset_s, vsnprintf_truncated_s.
int CopyBytes(void *destination, size_t destinationSize, const void *source, size_t count);
int FillBytes(void *destination, size_t destinationSize, int value, size_t count);
int FormatText(char *text, size_t size, const char *format, va_list arguments) PEGEIR_PLATFORM_PRINTF(3, 0);

} // namespace pegeir::common

#endif
