// treap.hh - an intrusive treap: a node has the members left, right and priority, and Precedes defines the order.
// Priorities are random and secret, so the depth is logarithmic whatever the order of insertion. No operation
// allocates, recurses or visits more than one path.
#pragma once

namespace mqc {

// Returns the node equal to key; null if there is none.
template <typename Node>
Node* Find(Node* root, const Node& key) {
  while (root != nullptr) {
    if (Precedes(key, *root)) {
      root = root->left;
    } else if (Precedes(*root, key)) {
      root = root->right;
    } else {
      break;
    }
  }
  return root;
}

// Inserts a node that is not equal to any other: below the nodes of higher priority on its path. Splits the subtree
// found there into the children of the new node.
template <typename Node>
void Insert(Node** root, Node* node) {
  while (*root != nullptr && (*root)->priority >= node->priority) {
    root = Precedes(*node, **root) ? &(*root)->left : &(*root)->right;
  }
  Node* rest = *root;
  *root = node;
  Node** before = &node->left;
  Node** after = &node->right;
  while (rest != nullptr) {
    if (Precedes(*rest, *node)) {
      *before = rest;
      before = &rest->right;
      rest = rest->right;
    } else {
      *after = rest;
      after = &rest->left;
      rest = rest->left;
    }
  }
  *before = nullptr;
  *after = nullptr;
}

// Returns the first node. The treap must not be empty.
template <typename Node>
Node* First(Node* root) {
  while (root->left != nullptr) root = root->left;
  return root;
}

// Removes the first node and returns it. The treap must not be empty.
template <typename Node>
Node* TakeFirst(Node** root) {
  while ((*root)->left != nullptr) root = &(*root)->left;
  Node* first = *root;
  *root = first->right;
  return first;
}

}  // namespace mqc
