// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <vector>

#include <zarip/msgbus/FakeBus.h>

#include "Lamp.h"

namespace {

struct IlluminatorTest : testing::Test {
    zarip::msgbus::FakeBus bus;
    Lamp lamp;
    IlluminatorServer server{&bus, &lamp};
    IlluminatorClient client{&bus};
};

TEST_F(IlluminatorTest, IsDescribedAsItIs) {
    EXPECT_EQ(zarip::interfaces::CheckDescription(server), "");
}

TEST_F(IlluminatorTest, TellsEveryChangeOnce) {
    std::vector<int> changes;
    client.BrightnessChanged.AddDelegate(
        zarip::core::MakeDelegate([&](const int& percent) { changes.push_back(percent); }));
    EXPECT_TRUE(client.SetBrightness(40));
    EXPECT_TRUE(client.SetBrightness(40));
    EXPECT_FALSE(client.SetBrightness(101));
    EXPECT_EQ(client.GetBrightness(), 40);
    client.SwitchOff();
    EXPECT_EQ(client.GetBrightness(), 0);
    EXPECT_EQ(changes, (std::vector<int>{40, 0}));
}

}  // namespace
