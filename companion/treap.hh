// treap.hh - sorted records that are linked through themselves: left, right, priority, and Precedes for their order.
// The priority is drawn at random and known to nobody outside, so the depth stays logarithmic in whatever order records
// come. No operation allocates, recurses or visits more than one path.
#pragma once

namespace mqc {

// The record that is equal to key in the order; null when there is none.
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

// Puts in a record that is equal to none: below all of a higher priority, above the two halves of the rest.
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

// The first record. There is one.
template <typename Node>
Node* First(Node* root) {
  while (root->left != nullptr) root = root->left;
  return root;
}

// Takes out the first record. There is one.
template <typename Node>
Node* TakeFirst(Node** root) {
  while ((*root)->left != nullptr) root = &(*root)->left;
  Node* first = *root;
  *root = first->right;
  return first;
}

}  // namespace mqc
