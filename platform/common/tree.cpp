// Red-black tree over nodes that live in the caller's records.
//
// child[kGreater] leads to the greater keys, child[kLesser] to the lesser ones.  The tree never
// compares keys: the caller links a new leaf where its search ended, and the operations here keep
//   1. a red node has no red child,
//   2. every way from a node down to the sentinel passes the same number of black nodes.
// Every missing link is the sentinel, so that no step needs a test for it; a removal lends the
// sentinel a parent while it climbs, and takes it back at the end.

#include "common/common.hpp"

#include <initializer_list>

namespace pegeir::common {
namespace {

constexpr int kGreater = 0;
constexpr int kLesser = 1;

using Node = KAL_RBT_Node;
using Tree = KAL_RBT_Tree;

bool IsRed(const Node *node) {
    return node->colour == KAL_RBT_RED;
}

int SideOf(const Node *node) {
    return node == node->parent->child[kGreater] ? kGreater : kLesser;
}

// Puts `fresh` where `old` hangs below its parent; the children of both stay as they are.
void Replace(Tree *tree, const Node *old, Node *fresh) {
    if (old->parent == &tree->sentinel) {
        tree->root = fresh;
    } else {
        old->parent->child[SideOf(old)] = fresh;
    }
    fresh->parent = old->parent;
}

// Moves node down to its `side`; the child on the other side takes its place.
void Rotate(Tree *tree, Node *node, int side) {
    Node *riser = node->child[1 - side];
    node->child[1 - side] = riser->child[side];
    if (riser->child[side] != &tree->sentinel) {
        riser->child[side]->parent = node;
    }
    Replace(tree, node, riser);
    riser->child[side] = node;
    node->parent = riser;
}

Node *Outermost(const Tree *tree, Node *node, int side) {
    while (node->child[side] != &tree->sentinel) {
        node = node->child[side];
    }
    return node;
}

// The ways through node are short of one black node; mends that.
void RemoveFixup(Tree *tree, Node *node) {
    while (node != tree->root && !IsRed(node)) {
        Node *parent = node->parent;
        const int side = SideOf(node);
        Node *sibling = parent->child[1 - side];
        if (IsRed(sibling)) {
            sibling->colour = KAL_RBT_BLACK;
            parent->colour = KAL_RBT_RED;
            Rotate(tree, parent, side);
            sibling = parent->child[1 - side];
        }
        if (!IsRed(sibling->child[kGreater]) && !IsRed(sibling->child[kLesser])) {
            sibling->colour = KAL_RBT_RED;
            node = parent;
            continue;
        }
        if (!IsRed(sibling->child[1 - side])) {
            sibling->child[side]->colour = KAL_RBT_BLACK;
            sibling->colour = KAL_RBT_RED;
            Rotate(tree, sibling, 1 - side);
            sibling = parent->child[1 - side];
        }
        sibling->colour = parent->colour;
        parent->colour = KAL_RBT_BLACK;
        sibling->child[1 - side]->colour = KAL_RBT_BLACK;
        Rotate(tree, parent, side);
        node = tree->root;
    }
    node->colour = KAL_RBT_BLACK;
}

} // namespace

KAL_RBT_Node *TreeFirst(KAL_RBT_Tree *tree) {
    if (tree == nullptr || tree->root == nullptr || tree->root == &tree->sentinel) {
        return nullptr;
    }
    return Outermost(tree, tree->root, kLesser);
}

KAL_RBT_Node *TreeNext(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    if (tree == nullptr || node == nullptr) {
        return nullptr;
    }
    if (node->child[kGreater] != &tree->sentinel) {
        return Outermost(tree, node->child[kGreater], kLesser);
    }
    Node *parent = node->parent;
    while (parent != &tree->sentinel && node == parent->child[kGreater]) {
        node = parent;
        parent = node->parent;
    }
    return parent == &tree->sentinel ? nullptr : parent;
}

void TreeInsertFixup(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    ++tree->count;
    while (IsRed(node->parent)) {
        Node *parent = node->parent;
        Node *grandparent = parent->parent;
        const int side = SideOf(parent);
        Node *uncle = grandparent->child[1 - side];
        if (IsRed(uncle)) {
            parent->colour = KAL_RBT_BLACK;
            uncle->colour = KAL_RBT_BLACK;
            grandparent->colour = KAL_RBT_RED;
            node = grandparent;
            continue;
        }
        if (SideOf(node) != side) {
            Rotate(tree, parent, side);
            node = parent;
            parent = node->parent;
        }
        parent->colour = KAL_RBT_BLACK;
        grandparent->colour = KAL_RBT_RED;
        Rotate(tree, grandparent, 1 - side);
    }
    tree->root->colour = KAL_RBT_BLACK;
}

void TreeRemove(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    // A node with two children cannot be cut out; its successor, which has no lesser child, is cut out
    // in its stead and then takes its place and colour.
    Node *cut = node;
    if (node->child[kGreater] != &tree->sentinel && node->child[kLesser] != &tree->sentinel) {
        cut = Outermost(tree, node->child[kGreater], kLesser);
    }
    Node *orphan = cut->child[cut->child[kGreater] != &tree->sentinel ? kGreater : kLesser];
    Replace(tree, cut, orphan);
    const bool mend = !IsRed(cut);
    if (cut != node) {
        Replace(tree, node, cut);
        cut->colour = node->colour;
        for (const int side : {kGreater, kLesser}) {
            // Also when this child is the sentinel: then it is the orphan, whose borrowed parent must
            // name the node that now stands there.
            cut->child[side] = node->child[side];
            cut->child[side]->parent = cut;
        }
    }
    if (mend) {
        RemoveFixup(tree, orphan);
    }
    tree->sentinel.parent = nullptr;
    --tree->count;
}

} // namespace pegeir::common
