// The virtual post on its own: the requests it refuses.
#include <gtest/gtest.h>

#include "support/Hex.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/VirtualPost.h"

namespace tqble::sim {
namespace {

using test::hex;

TEST(VirtualPost, IgnoresRequestsWithABadStartLengthChecksumOrCommand) {
  MainQueue::main().useVirtualClock();
  VirtualPost post;
  for (const char* request :
       {"69 b5 00 00 01 00 00 dd 00", "68 b5 00 00 02 00 00 df 00", "68 b5 00 00 01 00 00 dd 00",
        "68 b9 00 00 01 00 00 d0 00", "68 b5 00"}) {
    EXPECT_TRUE(post.handleWrite(hex(request)).empty()) << request;
  }
  EXPECT_EQ(post.receivedWrites().size(), 5u);
  EXPECT_TRUE(post.sentAnswers().empty());
}

}  // namespace
}  // namespace tqble::sim
