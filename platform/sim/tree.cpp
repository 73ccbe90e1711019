// The tree of all platforms, or another one: balanced by chance, without a use for colours, gone through from
// the root on, each node before those below it, so that the order changes with the shape.

#include "common/common.hpp"
#include "state.hpp"

using namespace pegeir::sim;

namespace {

using Node = KAL_RBT_Node;
using Tree = KAL_RBT_Tree;

bool IsOther() {
    return takesLiberties && Here().options.liberties.otherTree;
}

// The link that leads to node.
Node **LinkTo(Tree *tree, const Node *node) {
    Node *parent = node->parent;
    if (parent == &tree->sentinel) {
        return &tree->root;
    }
    return &parent->child[parent->child[1] == node ? 1 : 0];
}

void Hang(Tree *tree, Node *parent, Node **link, Node *node) {
    *link = node;
    if (node != &tree->sentinel) {
        node->parent = parent;
    }
}

// Moves node up to where its parent is, which becomes its child.
void Rise(Tree *tree, Node *node) {
    Node *parent = node->parent;
    const int side = parent->child[1] == node ? 1 : 0;
    Hang(tree, parent->parent, LinkTo(tree, parent), node);
    Hang(tree, parent, &parent->child[side], node->child[1 - side]);
    Hang(tree, node, &node->child[1 - side], parent);
}

} // namespace

KAL_RBT_Node *KAL_RBT_FirstNode(KAL_RBT_Tree *tree) {
    if (!IsOther()) {
        return pegeir::common::TreeFirst(tree);
    }
    return tree->root == &tree->sentinel ? nullptr : tree->root;
}

KAL_RBT_Node *KAL_RBT_NextNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    if (!IsOther() || node == nullptr) {
        return pegeir::common::TreeNext(tree, node);
    }
    const Node *const end = &tree->sentinel;
    for (Node *child : node->child) {
        if (child != end) {
            return child;
        }
    }
    for (; node->parent != end; node = node->parent) {
        if (node->parent->child[0] == node && node->parent->child[1] != end) {
            return node->parent->child[1];
        }
    }
    return nullptr;
}

// Most new nodes rise to the root, which keeps ways short whatever the order of insertion.
void KAL_RBT_InsertNodeFixup(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    if (!IsOther()) {
        pegeir::common::TreeInsertFixup(tree, node);
        return;
    }
    State &state = Here();
    ++tree->count;
    tree->reserved = Anything(state); // not the library's
    const bool rises = Below(state, 4) != 0;
    while (node->parent != &tree->sentinel && (rises || Below(state, 2) == 0)) {
        Rise(tree, node);
    }
    node->colour = KAL_RBT_BLACK;
}

// The node sinks until it can be cut out.
void KAL_RBT_RemoveNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    if (!IsOther()) {
        pegeir::common::TreeRemove(tree, node);
        return;
    }
    State &state = Here();
    Node *const end = &tree->sentinel;
    while (node->child[0] != end && node->child[1] != end) {
        Rise(tree, node->child[Below(state, 2)]);
    }
    Hang(tree, node->parent, LinkTo(tree, node), node->child[node->child[0] == end ? 1 : 0]);
    --tree->count;
    Scribble(state, static_cast<void *>(node), sizeof *node);
    end->parent = node;
}
