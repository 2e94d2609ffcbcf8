// A singly linked list of nodes holding a pointer each, with a count: the ROI and study
// lists. The list owns its nodes, not what they point at.
#pragma once

#include <cstdint>

struct PcdListNode {
  void* item = nullptr;
  PcdListNode* next = nullptr;
};

struct PcdList {
  PcdListNode* head = nullptr;
  PcdListNode* tail = nullptr;
  int32_t count = 0;
};

PcdList* PCD_NewList();
// Frees the nodes and the list; the items are the caller's.
void PCD_DeleteList(PcdList* list);
// Appends a node holding item; the new node, or null after "Err: PCD_NewNodeAddedToList\n".
PcdListNode* PCD_NewNodeAddedToList(PcdList* list, void* item);
// Removes the first node holding item; 0, or -1 when no node holds it.
int PCD_RemoveItemFromList(PcdList* list, const void* item);
// The item of node index (0-based), or null outside 0 .. count-1.
void* PCD_GetItemOfList(const PcdList* list, int32_t index);
