// SPDX-License-Identifier: MIT

#include <zarip/core/Delegate.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace zarip::core {
namespace {

struct Base {
    virtual ~Base() = default;
    virtual std::string Name() const { return "base"; }
};

struct Camera : Base {
    std::string Name() const override { return "camera"; }
    void Reset() { value = 0; }
    void Set(int to) { value = to; }
    void Log(const std::string& text) const { log->push_back(text); }
    int Get() const { return value; }
    int Add(int amount) { return value += amount; }
    bool IsLong(const std::string& text) { return text.size() > 3; }
    const std::string& Title() { return title; }

    int value = 5;
    std::string title = "title";
    std::vector<std::string>* log = nullptr;
};

TEST(DelegateTest, CallsTheMemberOfItsObject) {
    std::vector<std::string> log;
    Camera camera;
    camera.log = &log;

    const std::unique_ptr<IDelegate0<int>> get(MakeDelegate(&camera, &Camera::Get));
    const std::unique_ptr<IDelegate1<int, int>> add(MakeDelegate(&camera, &Camera::Add));
    const std::unique_ptr<IDelegate1<bool, std::string>> isLong(MakeDelegate(&camera, &Camera::IsLong));
    const std::unique_ptr<IVoidDelegate0> reset(MakeDelegate(&camera, &Camera::Reset));
    const std::unique_ptr<IVoidDelegate1<int>> set(MakeDelegate(&camera, &Camera::Set));
    const std::unique_ptr<IVoidDelegate1<std::string>> write(MakeDelegate(&camera, &Camera::Log));
    // A result that is a reference comes as a value.
    const std::unique_ptr<IDelegate0<std::string>> title(MakeDelegate(&camera, &Camera::Title));

    EXPECT_EQ(get->Call(), 5);
    EXPECT_EQ(add->Call(2), 7);
    EXPECT_TRUE(isLong->Call("long"));
    EXPECT_FALSE(isLong->Call("%s"));
    set->Call(9);
    EXPECT_EQ(get->Call(), 9);
    reset->Call();
    EXPECT_EQ(camera.value, 0);
    write->Call("written");
    EXPECT_EQ(log, std::vector<std::string>{"written"});
    EXPECT_EQ(title->Call(), "title");
}

TEST(DelegateTest, CallsAreVirtualAndObjectsMayBeConst) {
    Camera camera;
    const Camera& constant = camera;
    const std::unique_ptr<IDelegate0<std::string>> name(MakeDelegate(&camera, &Base::Name));
    const std::unique_ptr<IDelegate0<int>> get(MakeDelegate(&constant, &Camera::Get));
    EXPECT_EQ(name->Call(), "camera");
    EXPECT_EQ(get->Call(), 5);
}

int Twice(int value) noexcept {
    return 2 * value;
}

TEST(DelegateTest, OwnsWhatItCalls) {
    auto owned = std::make_unique<int>(7);
    auto shared = std::make_shared<int>(0);
    std::string heard;
    const std::unique_ptr<IDelegate0<int>> get(MakeDelegate([owned = std::move(owned)] { return *owned; }));
    std::unique_ptr<IVoidDelegate0> count(MakeDelegate([shared, n = 0]() mutable { *shared = ++n; }));
    const std::unique_ptr<IVoidDelegate1<std::string>> hear(
        MakeDelegate([&heard](const std::string& text) { heard = text; }));
    const std::unique_ptr<IDelegate1<int, int>> twice(MakeDelegate(&Twice));
    const std::unique_ptr<IDelegate1<bool, int>> isOdd(
        MakeDelegate([](int n) mutable { return n % 2 != 0; }));
    const std::unique_ptr<IDelegate0<std::string>> title(
        MakeDelegate([&heard]() -> const std::string& { return heard; }));
    EXPECT_EQ(get->Call(), 7);
    count->Call();
    count->Call();
    EXPECT_EQ(*shared, 2);
    EXPECT_FALSE(count->Matches(shared.get()) || count->Matches(nullptr));
    count.reset();
    EXPECT_EQ(shared.use_count(), 1);
    hear->Call("%s");
    EXPECT_EQ(title->Call(), "%s");
    EXPECT_EQ(twice->Call(4), 8);
    EXPECT_TRUE(isOdd->Call(5));
}

TEST(DelegateTest, MatchesOnlyItsOwnObject) {
    Camera one;
    Camera two;
    const std::unique_ptr<IDelegate0<int>> get(MakeDelegate(&one, &Camera::Get));
    const std::unique_ptr<IDelegate1<int, int>> add(MakeDelegate(&one, &Camera::Add));
    const std::unique_ptr<IVoidDelegate0> reset(MakeDelegate(&one, &Camera::Reset));
    const std::unique_ptr<IVoidDelegate1<int>> set(MakeDelegate(&one, &Camera::Set));
    EXPECT_TRUE(get->Matches(&one) && add->Matches(&one) && reset->Matches(&one) && set->Matches(&one));
    EXPECT_FALSE(get->Matches(&two) || add->Matches(&two) || reset->Matches(&two) || set->Matches(&two));
    EXPECT_FALSE(get->Matches(nullptr) || set->Matches(nullptr));

    struct Unbound : IVoidDelegate0 {
        void Call() override {}
    };
    EXPECT_FALSE(Unbound().Matches(&one));
}

}  // namespace
}  // namespace zarip::core
