// Tree, memory and text functions under the names of the contract, for a platform that has no reason to bring
// others.

#include "common/common.hpp"

#include <cstring>

using namespace pegeir::common;

KAL_RBT_Node *KAL_RBT_FirstNode(KAL_RBT_Tree *tree) {
    return TreeFirst(tree);
}

KAL_RBT_Node *KAL_RBT_NextNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    return TreeNext(tree, node);
}

void KAL_RBT_RemoveNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    TreeRemove(tree, node);
}

void KAL_RBT_InsertNodeFixup(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    TreeInsertFixup(tree, node);
}

int memcpy_s(void *destination, size_t destinationSize, const void *source, size_t count) {
    return CopyBytes(destination, destinationSize, source, count);
}

int memset_s(void *destination, size_t destinationSize, int value, size_t count) {
    return FillBytes(destination, destinationSize, value, count);
}

int vsnprintf_truncated_s(char *text, size_t size, const char *format, va_list arguments) {
    return FormatText(text, size, format, arguments);
}

int snprintf_truncated_s(char *text, size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = FormatText(text, size, format, arguments);
    va_end(arguments);
    return written;
}

int KAL_MemCmp(const void *left, const void *right, size_t count) {
    return std::memcmp(left, right, count);
}

int KAL_StrCmp(const char *left, const char *right) {
    return std::strcmp(left, right);
}
