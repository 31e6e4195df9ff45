// Doubly linked lists with typed, named nodes.
#include <cstring>

#include "kelpimage/il/chunk/fl.h"

void FLinitlist(FLlist* list) {
  list->head = nullptr;
  list->tail = nullptr;
  list->count = 0;
}

void FLinitnode(FLnode* node, const char* name, uint32_t type) {
  node->name = name;
  node->type = type;
}

void FLheadnode(FLlist* list, FLnode* node) {
  node->owner = list;
  node->prev = nullptr;
  node->next = list->head;
  if (list->head)
    list->head->prev = node;
  else
    list->tail = node;
  list->head = node;
  list->count++;
}

void FLtailnode(FLlist* list, FLnode* node) {
  node->owner = list;
  node->next = nullptr;
  node->prev = list->tail;
  if (list->tail)
    list->tail->next = node;
  else
    list->head = node;
  list->tail = node;
  list->count++;
}

void FLdelnode(FLnode* node) {
  FLlist* list = node->owner;
  if (!list) return;
  if (node->prev)
    node->prev->next = node->next;
  else
    list->head = node->next;
  if (node->next)
    node->next->prev = node->prev;
  else
    list->tail = node->prev;
  list->count--;
  node->next = node->prev = nullptr;
  node->owner = nullptr;
}

FLnode* FLgetnodebytype(FLlist* list, uint32_t type) {
  for (FLnode* n = list->head; n; n = n->next)
    if (n->type == type) return n;
  return nullptr;
}

FLnode* FLgetnodebyname(FLlist* list, const char* name) {
  if (!name) return nullptr;
  for (FLnode* n = list->head; n; n = n->next)
    if (n->name && std::strcmp(n->name, name) == 0) return n;
  return nullptr;
}

int FLscanlist(FLlist* list, FLscanfn fn, void* arg) {
  for (FLnode* n = list->head; n;) {
    FLnode* next = n->next;  // fn may take the node out and free it
    if (int r = fn(n, arg)) return r;
    n = next;
  }
  return 0;
}

// A zeroed node of `size` bytes (at least a node) carrying a private copy of
// its name right behind the data.
FLnode* FLnewcnode(const char* name, uint32_t type, size_t size) {
  if (size < sizeof(FLnode)) size = sizeof(FLnode);
  size_t namelen = name ? std::strlen(name) + 1 : 0;
  auto* node = static_cast<FLnode*>(FLcalloc(size + namelen, nullptr));
  if (!node) return nullptr;
  if (name) {
    char* copy = reinterpret_cast<char*>(node) + size;
    std::memcpy(copy, name, namelen);
    node->name = copy;
  }
  node->type = type;
  return node;
}

void FLfreenode(FLnode* node) {
  if (!node) return;
  FLdelnode(node);
  FLfree(node);
}
