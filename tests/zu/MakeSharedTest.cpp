#include <ZuCore/MakeShared.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

using Varkel::Zu::MakeShared;
using Varkel::Zu::PrivateConstructorType;

namespace {

class Widget {
  public:
    Widget(PrivateConstructorType, std::string name, int size)
        : name_(std::move(name)), size_(size) {}
    explicit Widget(PrivateConstructorType) : size_(-1) {}

    const std::string& name() const { return name_; }
    int size() const { return size_; }

  private:
    std::string name_;
    int size_;
};

class MoveOnlyHolder {
  public:
    MoveOnlyHolder(PrivateConstructorType, std::unique_ptr<int> value) : value_(std::move(value)) {}
    int value() const { return *value_; }

  private:
    std::unique_ptr<int> value_;
};

template <class T, class = void>
struct BraceConstructible : std::false_type {};
template <class T>
struct BraceConstructible<T, std::void_t<decltype(T{})>> : std::true_type {};

}  // namespace

// Only MakeShared can make the tag, so only MakeShared can construct the guarded classes.
static_assert(!std::is_default_constructible_v<PrivateConstructorType>);
static_assert(!BraceConstructible<PrivateConstructorType>::value);
static_assert(std::is_copy_constructible_v<PrivateConstructorType>);
static_assert(!std::is_constructible_v<Widget, std::string, int>);

TEST(MakeSharedTest, CreatePassesTheArgumentsAfterTheTag) {
    std::shared_ptr<Widget> widget = MakeShared::create<Widget>(std::string("gear"), 12);
    ASSERT_NE(widget, nullptr);
    EXPECT_EQ(widget->name(), "gear");
    EXPECT_EQ(widget->size(), 12);
    EXPECT_EQ(widget.use_count(), 1);
}

TEST(MakeSharedTest, CreateWithTheTagAlone) {
    EXPECT_EQ(MakeShared::create<Widget>()->size(), -1);
}

TEST(MakeSharedTest, CreateForwardsMoveOnlyArguments) {
    auto holder = MakeShared::create<MoveOnlyHolder>(std::make_unique<int>(41));
    EXPECT_EQ(holder->value(), 41);
}
