// The singly linked list records of the ROI and study lists.
#include <gtest/gtest.h>

#include "vol/list.h"

namespace {

TEST(List, AppendsRemovesAndCounts) {
  PcdList* list = PCD_NewList();
  int a = 1, b = 2, c = 3;
  for (int* item : {&a, &b, &c}) ASSERT_NE(PCD_NewNodeAddedToList(list, item), nullptr);
  EXPECT_EQ(list->count, 3);
  EXPECT_EQ(PCD_GetItemOfList(list, 2), &c);
  EXPECT_EQ(PCD_GetItemOfList(list, 3), nullptr);
  EXPECT_EQ(PCD_RemoveItemFromList(list, &c), 0);  // the tail
  EXPECT_EQ(PCD_RemoveItemFromList(list, &c), -1);
  ASSERT_NE(PCD_NewNodeAddedToList(list, &c), nullptr);  // appended after the new tail
  EXPECT_EQ(PCD_GetItemOfList(list, 2), &c);
  EXPECT_EQ(PCD_RemoveItemFromList(list, &a), 0);  // the head
  EXPECT_EQ(PCD_GetItemOfList(list, 0), &b);
  EXPECT_EQ(list->count, 2);
  PCD_DeleteList(list);
  testing::internal::CaptureStderr();
  EXPECT_EQ(PCD_NewNodeAddedToList(nullptr, &a), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Err: PCD_NewNodeAddedToList\n");
}

}  // namespace
