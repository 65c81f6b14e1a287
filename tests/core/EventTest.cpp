// SPDX-License-Identifier: MIT

#include <zarip/core/Delegate.h>
#include <zarip/core/Event.h>
#include <zarip/osa/Semaphore.h>

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/InThreads.h"

namespace zarip::core {
namespace {

/// A delegate that runs a function and counts itself.
class Probe final : public IVoidDelegate1<int> {
public:
    Probe(const void* object, std::function<void(int)> work) : _object(object), _work(std::move(work)) {
        ++s_alive;
    }
    ~Probe() override { --s_alive; }
    void Call(const int& argument) override { _work(argument); }
    bool Matches(const void* object) const override { return object == _object; }

    static std::atomic<int> s_alive;

private:
    const void* _object;
    std::function<void(int)> _work;
};
std::atomic<int> Probe::s_alive{0};

struct EventTest : testing::Test {
    ~EventTest() override { EXPECT_EQ(Probe::s_alive, 0) << "a delegate leaked or died twice"; }

    void Add(Event1<int>& event, const void* object, std::function<void(int)> work) {
        event.AddDelegate(new Probe(object, std::move(work)));
    }
    void Add(Event1<int>& event, const void* object, const std::string& name) {
        Add(event, object, [this, name](int value) { calls.push_back(name + std::to_string(value)); });
    }

    using Calls = std::vector<std::string>;
    Calls Take() { return std::exchange(calls, {}); }

    Calls calls;
    int a = 0;
    int b = 0;
};

TEST_F(EventTest, ADelegateMayEndItsThread) {
    Event1<int> event;
    Add(event, &a, [](int) { ::pthread_exit(nullptr); });
    Add(event, &b, "b");
    std::thread([&] { event.FireEvent(1); }).join();
    event.RemoveDelegate(&a);
    EXPECT_EQ(Probe::s_alive, 1);
    event.FireEvent(2);
    EXPECT_EQ(Take(), Calls{"b2"});
}

TEST_F(EventTest, WhatADelegateOwnsMayRemoveOthersAsItGoes) {
    Event1<int> event;
    std::shared_ptr<void> owned(nullptr, [&](void*) { event.RemoveDelegate(&b); });
    Add(event, &a, [last = std::move(owned)](int) {});
    Add(event, &b, "b");
    event.RemoveDelegate(&a);
    event.FireEvent(0);
    EXPECT_EQ(Take(), Calls());
}

TEST_F(EventTest, CallsItsDelegatesInOrderAndDeletesThem) {
    {
        Event1<int> event;
        event.FireEvent(0);
        Add(event, &a, "a");
        Add(event, &b, "b");
        Add(event, &a, "c");
        event.FireEvent(1);
        EXPECT_EQ(Take(), (Calls{"a1", "b1", "c1"}));
        event.RemoveDelegate(&a);
        EXPECT_EQ(Probe::s_alive, 1);
        event.RemoveDelegate(&calls);
        event.FireEvent(2);
        EXPECT_EQ(Take(), Calls{"b2"});
    }
    EXPECT_EQ(Probe::s_alive, 0);

    struct Counter {
        void Count() { ++count; }
        int count = 0;
    } counter;
    Event0 plain;
    plain.AddDelegate(MakeDelegate(&counter, &Counter::Count));
    plain.AddDelegate(MakeDelegate(&counter, &Counter::Count));
    plain.FireEvent();
    EXPECT_EQ(counter.count, 2);
    plain.RemoveDelegate(&counter);
    plain.FireEvent();
    EXPECT_EQ(counter.count, 2);
}

TEST_F(EventTest, ADelegateMayChangeTheListItIsCalledFrom) {
    Event1<int> event;
    bool isAlive = false;
    Add(event, &a, [&](int value) {
        const std::string kept = "self" + std::to_string(value);
        event.RemoveDelegate(&a);
        isAlive = Probe::s_alive == 3;
        calls.push_back(kept);
        Add(event, &calls, "added");
    });
    Add(event, &b, [&](int) {
        event.RemoveDelegate(&b);
        calls.push_back("first b");
    });
    Add(event, &b, "second b");
    event.FireEvent(1);
    EXPECT_TRUE(isAlive) << "a running delegate was deleted";
    EXPECT_EQ(Take(), (Calls{"self1", "first b"})) << "removed ones are not called, new ones not yet";
    EXPECT_EQ(Probe::s_alive, 1);
    event.FireEvent(2);
    EXPECT_EQ(Take(), Calls{"added2"});
}

TEST_F(EventTest, ADelegateMayDeleteTheEventInAFiringInsideAFiring) {
    auto event = std::make_unique<Event1<int>>();
    Event1<int>* const same = event.get();
    Add(*event, &a, [&, same](int value) {
        calls.push_back("a" + std::to_string(value));
        if (value < 2) {
            same->FireEvent(value + 1);
        } else {
            event.reset();
        }
    });
    Add(*event, &b, "b");
    same->FireEvent(0);
    EXPECT_EQ(Take(), (Calls{"a0", "a1", "a2"}));
}

TEST_F(EventTest, AFiringInsideAFiringKeepsTheListTogether) {
    Event1<int> event;
    Add(event, &a, [&](int value) {
        calls.push_back("outer" + std::to_string(value));
        if (value == 1) {
            event.FireEvent(2);
            calls.push_back("still here");
        } else {
            event.RemoveDelegate(&a);
        }
    });
    Add(event, &b, "b");
    event.FireEvent(1);
    EXPECT_EQ(Take(), (Calls{"outer1", "outer2", "b2", "still here", "b1"}));
    EXPECT_EQ(Probe::s_alive, 1);
}

TEST_F(EventTest, EveryDelegateIsCalledThoughOneThrows) {
    Event1<int> event;
    Add(event, &a, [](int) { throw std::runtime_error("first"); });
    Add(event, &a, [](int) { throw 5; });
    Add(event, &b, "b");
    for (int i = 0; i < 2; ++i) {
        try {
            event.FireEvent(i);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "first");
        }
    }
    EXPECT_EQ(Take(), (Calls{"b0", "b1"}));
    // The lock is free again and removal works.
    std::thread([&] { event.RemoveDelegate(&a); }).join();
    event.FireEvent(2);
    EXPECT_EQ(Take(), Calls{"b2"});
}

TEST_F(EventTest, RemovalWaitsForARunningCall) {
    for (int round = 0; round < 100; ++round) {
        Event1<int> event;
        osa::Semaphore running("running", 1, 0);
        std::atomic<bool> removing{false};
        std::atomic<bool> ended{false};
        Add(event, &a, [&](int) {
            running.Release();
            while (!removing) {
                std::this_thread::yield();
            }
            for (int i = 0; i < 100; ++i) {
                std::this_thread::yield();
            }
            ended = true;
        });
        std::thread firing([&] { event.FireEvent(1); });
        running.Lock();
        removing = true;
        event.RemoveDelegate(&a);
        ASSERT_TRUE(ended) << "RemoveDelegate returned while the delegate ran";
        ASSERT_EQ(Probe::s_alive, 0);
        firing.join();
    }
}

TEST_F(EventTest, SubscribersComeAndGoWhileOthersFire) {
    Event1<int> event;
    std::atomic<bool> stop{false};
    std::atomic<int> late{0};
    std::atomic<int> called{0};
    test::Threads firing(2, [&](int) {
        while (!stop) {
            event.FireEvent(1);
        }
    });
    test::InThreads(2, [&](int) {
        for (int round = 0; round < 500; ++round) {
            std::atomic<bool> subscribed{true};
            Add(event, &subscribed, [&](int) {
                late += !subscribed;
                ++called;
            });
            if (round % 8 == 0) {
                const int before = called;
                while (called == before) {
                    std::this_thread::yield();
                }
            }
            event.RemoveDelegate(&subscribed);
            subscribed = false;
        }
    });
    stop = true;
    firing.Join();
    EXPECT_EQ(late, 0);
    EXPECT_GT(called, 0);
}

}  // namespace
}  // namespace zarip::core
