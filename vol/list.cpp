#include "vol/list.h"

#include <cstdio>
#include <new>

PcdList* PCD_NewList() { return new (std::nothrow) PcdList; }

void PCD_DeleteList(PcdList* list) {
  if (list == nullptr) return;
  for (PcdListNode* node = list->head; node != nullptr;) {
    PcdListNode* next = node->next;
    delete node;
    node = next;
  }
  delete list;
}

PcdListNode* PCD_NewNodeAddedToList(PcdList* list, void* item) {
  PcdListNode* node = list == nullptr ? nullptr : new (std::nothrow) PcdListNode;
  if (node == nullptr) {
    std::fputs("Err: PCD_NewNodeAddedToList\n", stderr);
    return nullptr;
  }
  node->item = item;
  if (list->tail != nullptr) list->tail->next = node;
  else list->head = node;
  list->tail = node;
  ++list->count;
  return node;
}

int PCD_RemoveItemFromList(PcdList* list, const void* item) {
  if (list == nullptr) return -1;
  PcdListNode* previous = nullptr;
  for (PcdListNode* node = list->head; node != nullptr; previous = node, node = node->next) {
    if (node->item != item) continue;
    (previous != nullptr ? previous->next : list->head) = node->next;
    if (list->tail == node) list->tail = previous;
    delete node;
    --list->count;
    return 0;
  }
  return -1;
}

void* PCD_GetItemOfList(const PcdList* list, int32_t index) {
  if (list == nullptr || index < 0 || index >= list->count) return nullptr;
  const PcdListNode* node = list->head;
  for (int32_t i = 0; i < index; ++i) node = node->next;
  return node->item;
}
