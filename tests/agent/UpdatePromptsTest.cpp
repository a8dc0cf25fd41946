#include "agent/UpdatePrompts.h"

#include <gtest/gtest.h>

#include <string>

TEST(UpdatePrompts, TheParametersHoldACopyOfTheAddress) {
    std::string address = "http://localhost/p.dmg";
    auto* parameters = new THREADPARAMETERS(address.c_str());
    address[0] = 'X';
    EXPECT_STREQ(parameters->url, "http://localhost/p.dmg");
    delete[] parameters->url;
    parameters->release();
}

TEST(UpdatePrompts, NothingIsUnderWayAtTheStart) {
    EXPECT_EQ(updating, 0);
    EXPECT_EQ(notifyUpdatePopUp.load(), nullptr);
    EXPECT_EQ(notifyUpdatingPopUp.load(), nullptr);
}
