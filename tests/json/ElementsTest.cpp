// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <pthread.h>

#include "JsonText.h"

namespace {

static_assert(std::is_nothrow_move_constructible_v<UnknownElement>);
static_assert(std::is_nothrow_move_assignable_v<UnknownElement>);
static_assert(std::is_base_of_v<std::runtime_error, json::Exception>);
static_assert(std::is_same_v<Number, json::TrivialType_T<double>>);
static_assert(std::is_same_v<Boolean, json::TrivialType_T<bool>>);
static_assert(std::is_same_v<String, json::TrivialType_T<std::string>>);

TEST(TrivialType, ConvertsFromAndToThePlainType) {
    EXPECT_EQ(Number().Value(), 0.0);
    EXPECT_EQ(Boolean().Value(), false);
    EXPECT_EQ(String().Value(), "");

    Number number = 2.5;
    double& plain = number;
    plain += 1;
    EXPECT_EQ(static_cast<const double&>(std::as_const(number)), 3.5);
    const String string = std::string("text");
    const std::string& text = string;
    EXPECT_EQ(text, "text");
    number.Value() = 7;
    EXPECT_TRUE(number == Number(7));
    EXPECT_FALSE(string == String("other"));
}

TEST(UnknownElement, ConstConversionRefusesEveryOtherType) {
    const UnknownElement elements[] = {Array(),       Object(),    Number(1),
                                       Boolean(true), String("s"), UnknownElement()};
    const auto accepted = [](const UnknownElement& element) {
        std::string types;
        const auto attempt = [&types](char letter, auto convert) {
            const std::string text = TextOfException(convert);
            types += text == "no exception" ? letter : text == "Bad cast" ? '.' : '?';
        };
        attempt('A', [&] { static_cast<const Array&>(element).Size(); });
        attempt('O', [&] { static_cast<const Object&>(element).Size(); });
        attempt('N', [&] { static_cast<const Number&>(element).Value(); });
        attempt('B', [&] { static_cast<const Boolean&>(element).Value(); });
        attempt('S', [&] { static_cast<const String&>(element).Value(); });
        attempt('0', [&] { static_cast<void>(static_cast<const Null&>(element) == Null()); });
        return types;
    };
    EXPECT_EQ(accepted(elements[0]), "A.....");
    EXPECT_EQ(accepted(elements[1]), ".O....");
    EXPECT_EQ(accepted(elements[2]), "..N...");
    EXPECT_EQ(accepted(elements[3]), "...B..");
    EXPECT_EQ(accepted(elements[4]), "....S.");
    EXPECT_EQ(accepted(elements[5]), ".....0");
    EXPECT_EQ(TextOfException([&] { elements[0]["name"]; }), "Bad cast");
    EXPECT_EQ(TextOfException([&] { elements[1][0]; }), "Bad cast");
}

TEST(UnknownElement, NonConstConversionReplacesAnotherType) {
    UnknownElement element = Number(4);
    static_cast<Number&>(element).Value() += 1;
    EXPECT_TRUE(element == Number(5));
    EXPECT_EQ(static_cast<String&>(element).Value(), "");
    EXPECT_FALSE(static_cast<Boolean&>(element).Value());
    EXPECT_EQ(static_cast<Number&>(element).Value(), 0);
    EXPECT_TRUE(static_cast<Array&>(element).Empty());
    EXPECT_TRUE(static_cast<Object&>(element).Empty());
    EXPECT_TRUE(static_cast<Null&>(element) == Null());
    EXPECT_TRUE(element == UnknownElement());

    element["list"][2] = Boolean(true);
    element["name"] = String("n");
    EXPECT_EQ(ToText(Object(element)), R"({"list":[null,null,true],"name":"n"})");
    const UnknownElement& constant = element;
    EXPECT_TRUE(static_cast<const Boolean&>(constant["list"][2]).Value());
    element[0] = Null();  // no object any more
    EXPECT_TRUE(element == Parse("[null]"));
}

TEST(UnknownElement, CopiesAreDeepAndMovesLeaveNull) {
    UnknownElement original = Parse(R"({"a":[1,{"b":"text"}]})");
    UnknownElement copy = original;
    copy["a"][1]["b"] = Number(2);
    EXPECT_TRUE(original == Parse(R"({"a":[1,{"b":"text"}]})"));
    EXPECT_FALSE(original == copy);

    const UnknownElement moved = std::move(copy);
    EXPECT_TRUE(copy == Null());  // NOLINT(bugprone-use-after-move): what is left is part of the interface
    EXPECT_TRUE(moved == Parse(R"({"a":[1,{"b":2}]})"));

    original = original["a"];  // a part of itself, copied and moved
    EXPECT_TRUE(original == Parse(R"([1,{"b":"text"}])"));
    original = std::move(original[1]);
    EXPECT_TRUE(original == Parse(R"({"b":"text"})"));
    UnknownElement& same = original;
    original = same;
    EXPECT_TRUE(original == Parse(R"({"b":"text"})"));
}

TEST(UnknownElement, EqualityComparesTypeThenValue) {
    const char* documents[] = {"null",
                               "true",
                               "false",
                               "1",
                               "2",
                               R"("1")",
                               "[]",
                               "[1]",
                               "[1,2]",
                               "[2,1]",
                               "[[]]",
                               "{}",
                               R"({"a":1})",
                               R"({"a":2})",
                               R"({"b":1})",
                               R"({"a":1,"b":1})",
                               R"({"b":1,"a":1})"};
    for (const char* one : documents) {
        for (const char* other : documents) {
            EXPECT_EQ(Parse(one) == Parse(other), one == other) << one << " and " << other;
        }
    }
}

TEST(Array, InsertsErasesAndResizes) {
    Array array;
    array.Insert(Number(1));
    UnknownElement& first = array[0];
    array.Insert(Number(3));
    EXPECT_TRUE(first == Number(1));  // inserting at the end keeps references
    array.Insert(Number(2), array.Begin() + 1);
    EXPECT_EQ(ToText(array, false), "[1,2,3]");
    array.Insert(array[2], array.begin());  // an element of its own
    array.Erase(array.Begin() + 1);
    EXPECT_EQ(ToText(array, false), "[3,2,3]");
    array.Resize(4);
    EXPECT_EQ(ToText(array, false), "[3,2,3,null]");
    array.Resize(1);
    EXPECT_EQ(ToText(array, false), "[3]");
    array[2] = String("grown");
    EXPECT_EQ(ToText(array, false), R"([3,null,"grown"])");
    EXPECT_EQ(array.Size(), 3U);

    const Array& constant = array;
    EXPECT_EQ(constant.End() - constant.Begin(), 3);
    EXPECT_TRUE(constant[0] == Number(3));
    EXPECT_EQ(TextOfException([&] { constant[3]; }), "Array out of bounds");
    EXPECT_EQ(TextOfException([&] { array[static_cast<std::size_t>(-1)]; }), "Array out of bounds");
    EXPECT_EQ(array.Size(), 3U);
    array.Clear();
    EXPECT_TRUE(array.Empty());
    EXPECT_TRUE(constant.begin() == constant.end());
}

TEST(Object, KeepsMembersInOrderOfInsertion) {
    Object object;
    object["zebra"] = Number(1);
    object.Insert({"ant", Number(2)});
    object.Insert(Object::Member("cow"), object.Begin());
    object["ant"] = Number(3);
    EXPECT_EQ(ToText(object), R"({"cow":null,"zebra":1,"ant":3})");
    for (const auto where : {object.Begin(), object.End()}) {
        EXPECT_EQ(TextOfException([&] { object.Insert(Object::Member("ant", Number(9)), where); }),
                  "Object member already exists: ant");
    }
    EXPECT_EQ(TextOfException([&] { object.Insert(Object::Member("cow")); }),
              "Object member already exists: cow");
    EXPECT_EQ(object.Size(), 3U);

    const Object& constant = object;
    EXPECT_EQ(constant.Find("zebra")->name, "zebra");
    EXPECT_TRUE(constant.Find("Zebra") == constant.End());
    EXPECT_TRUE(constant["ant"] == Number(3));
    EXPECT_EQ(TextOfException([&] { constant["bee"]; }), "Object member not found: bee");
    EXPECT_EQ(object.Size(), 3U);

    object.Find("ant")->element = Boolean(true);
    EXPECT_EQ(object.Erase(object.Find("zebra"))->name, "ant");
    EXPECT_EQ(ToText(object), R"({"cow":null,"ant":true})");
    object.Clear();
    EXPECT_TRUE(object.Empty());
    EXPECT_TRUE(constant.begin() == constant.end());
}

TEST(Visitor, IsCalledForTheTypeThatIsHeld) {
    struct Namer : json::ConstVisitor {
        void Visit(const Array& array) override {
            for (const UnknownElement& element : array) {
                element.Accept(*this);
            }
            seen += "array ";
        }
        void Visit(const Object& /*object*/) override { seen += "object "; }
        void Visit(const Number& number) override { seen += std::to_string(static_cast<int>(number)) + ' '; }
        void Visit(const String& string) override { seen += string.Value() + ' '; }
        void Visit(const Boolean& boolean) override { seen += boolean.Value() ? "true " : "false "; }
        void Visit(const Null& /*null*/) override { seen += "null "; }
        std::string seen;
    } namer;
    Parse(R"([{}, 12, "text", true, null, []])").Accept(namer);
    EXPECT_EQ(namer.seen, "object 12 text true null array array ");

    struct Changer : json::Visitor {
        void Visit(Array& array) override { array.Clear(); }
        void Visit(Object& object) override { object["new"]; }
        void Visit(Number& number) override { number.Value() += 1; }
        void Visit(String& string) override { string.Value() += '!'; }
        void Visit(Boolean& boolean) override { boolean.Value() = !boolean.Value(); }
        void Visit(Null& /*null*/) override { ++nulls; }
        int nulls = 0;
    } changer;
    Array array = Parse<Array>(R"([[1], {}, 1, "a", false, null])");
    for (UnknownElement& element : array) {
        element.Accept(changer);
    }
    EXPECT_EQ(ToText(array, false), R"([[],{"new":null},2,"a!",true,null])");
    EXPECT_EQ(changer.nulls, 1);
}

// The smallest stack of a service's thread holds everything that is done with the deepest document that is
// read.
TEST(UnknownElement, DeepestDocumentFitsASmallStack) {
#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define ZARIP_PLAIN_STACK_FRAMES 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#undef ZARIP_PLAIN_STACK_FRAMES
#endif
#endif
#ifdef ZARIP_PLAIN_STACK_FRAMES
    constexpr std::size_t kStackSize = 192 * 1024;
#else
    constexpr std::size_t kStackSize = 4 * 1024 * 1024;
#endif
    const auto run = [](void* result) -> void* {
        for (const bool objects : {false, true}) {
            std::string text = objects ? "1" : "";
            for (int i = 0; i < 200; ++i) {
                text = objects ? "{\"a\":" + text + "}" : "[" + text + "]";
            }
            const UnknownElement original = Parse(text);
            UnknownElement copy = original;
            const bool good = copy == original && Parse(ToText(copy)) == original;
            copy = Null();
            *static_cast<int*>(result) += good ? 1 : 0;
        }
        return nullptr;
    };
    int good = 0;
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStackSize), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &good), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(good, 2);
}

}  // namespace
