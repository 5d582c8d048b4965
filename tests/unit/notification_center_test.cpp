#include "tovrel/notification_center.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tovrel {
namespace {

using Json = nlohmann::json;

TEST(NotificationCenter, CallsMatchingObserversInRegistrationOrder) {
    NotificationCenter center;
    std::vector<std::string> calls;
    center.addObserver("a", nullptr, [&](const Notification&) { calls.push_back("first"); });
    center.addObserver("b", nullptr, [&](const Notification&) { calls.push_back("other name"); });
    center.addObserver("a", nullptr, [&](const Notification&) { calls.push_back("second"); });
    center.addObserver("", nullptr, [&](const Notification& n) { calls.push_back("any:" + n.name); });
    center.post("a");
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "second", "any:a"}));
}

TEST(NotificationCenter, FiltersBySender) {
    NotificationCenter center;
    int mine = 0;
    int any = 0;
    const int senderA = 0;
    const int senderB = 0;
    center.addObserver("n", &senderA, [&](const Notification&) { ++mine; });
    center.addObserver("n", nullptr, [&](const Notification&) { ++any; });
    center.post("n", {}, &senderB);
    center.post("n", {}, &senderA);
    center.post("n");
    EXPECT_EQ(mine, 1);
    EXPECT_EQ(any, 3);
}

TEST(NotificationCenter, CarriesObjectAndUserInfo) {
    NotificationCenter center;
    Json seenObject;
    Json seenInfo;
    center.addObserver("n", nullptr, [&](const Notification& n) {
        seenObject = std::any_cast<Json>(n.object);
        seenInfo = n.userInfo;
    });
    center.post("n", Json{{"body", "x"}}, nullptr, Json{{"k", 1}});
    EXPECT_EQ(seenObject["body"], "x");
    EXPECT_EQ(seenInfo["k"], 1);
}

TEST(NotificationCenter, RemovalInsideAHandlerStopsLaterCallsOfThatPost) {
    NotificationCenter center;
    int second = 0;
    ObserverToken secondToken = 0;
    center.addObserver("n", nullptr, [&](const Notification&) { center.removeObserver(secondToken); });
    secondToken = center.addObserver("n", nullptr, [&](const Notification&) { ++second; });
    center.post("n");
    center.post("n");
    EXPECT_EQ(second, 0);
}

TEST(NotificationCenter, ObserverAddedDuringPostSeesOnlyLaterPosts) {
    NotificationCenter center;
    int late = 0;
    bool added = false;
    center.addObserver("n", nullptr, [&](const Notification&) {
        if (!added) {
            added = true;
            center.addObserver("n", nullptr, [&](const Notification&) { ++late; });
        }
    });
    center.post("n");
    EXPECT_EQ(late, 0);
    center.post("n");
    EXPECT_EQ(late, 1);
}

TEST(NotificationCenter, NestedPostsRunSynchronously) {
    NotificationCenter center;
    std::vector<std::string> order;
    center.addObserver("outer", nullptr, [&](const Notification&) {
        order.push_back("outer-begin");
        center.post("inner");
        order.push_back("outer-end");
    });
    center.addObserver("inner", nullptr, [&](const Notification&) { order.push_back("inner"); });
    center.post("outer");
    EXPECT_EQ(order, (std::vector<std::string>{"outer-begin", "inner", "outer-end"}));
}

}  // namespace
}  // namespace tovrel
