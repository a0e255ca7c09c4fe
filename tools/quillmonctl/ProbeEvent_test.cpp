#include "quillmonctl/ProbeEvent.h"

#include <gtest/gtest.h>

namespace {

using namespace ctl;

TEST(ProbeEvent, IsTheOnlyEventThatItsSubscriptionSelects) {
  EXPECT_EQ(probeQuery("quillmonctl-1-2"),
            "SELECT * FROM QuillmonEvent WHERE deviceid = \"quillmonctl-1-2\"");
}

} // namespace
