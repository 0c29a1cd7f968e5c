#include "agent/agent_services.h"

#include <gtest/gtest.h>

using kestrel::Service_Gate;

TEST(Service_Gate, lets_so_many_in_and_others_when_they_have_left)
{
  Service_Gate gate(2);
  EXPECT_TRUE(gate.enter());
  EXPECT_TRUE(gate.enter());
  EXPECT_FALSE(gate.enter());
  EXPECT_FALSE(gate.enter());
  gate.leave();
  EXPECT_TRUE(gate.enter());
  EXPECT_FALSE(gate.enter());
}
