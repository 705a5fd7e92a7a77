#include <gtest/gtest.h>

#include "Kiln/HashMap.h"
#include "Kiln/LinkQueue.h"
#include "Kiln/RbTreeMap.h"

namespace {
class KilnA : public Kiln::HashMapMember<KilnA, U32, U32> { using HashMapMember::HashMapMember; };
class KilnB : public Kiln::RbTreeMember<KilnB, U16, bool> { using RbTreeMember::RbTreeMember; };
class KilnC : public Kiln::LinkQueueMember<KilnC, U32> { using LinkQueueMember::LinkQueueMember; };
}

TEST(Containers, Compile) {
  Kiln::HashMap<KilnA, U32, U32> h;
  h.insert(new KilnA(1, 2));
  EXPECT_EQ(h.find(1)->value(), 2u);
  Kiln::RbTreeMap<KilnB, U16, bool> t;
  t.insert(new KilnB(1, true));
  EXPECT_EQ(sizeof(KilnB), 40u);
  Kiln::LinkQueue<KilnC, U32> q;
  EXPECT_EQ(q.enq(new KilnC(5)), 0u);
}
