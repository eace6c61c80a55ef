#include "talvo/runtime/class_registry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "talvo/serialization/layer_info.h"

namespace talvo::runtime {
namespace {

using Object = std::shared_ptr<Serializable>;

std::function<Object()> Maker(std::string const& mark) {
  return [mark] {
    auto const object = std::make_shared<Serializable>();
    object->serializable_type = mark;
    return object;
  };
}

TEST(ClassRegistry, KeepsTheFirstMakerUnlessTold) {
  ClassRegistry<Object> registry;
  EXPECT_TRUE(registry.Register("X", Maker("first"), false));
  EXPECT_FALSE(registry.Register("X", Maker("second"), false));
  EXPECT_EQ(registry.Create("X")->serializable_type, "first");
  EXPECT_TRUE(registry.Register("X", Maker("third"), true));
  EXPECT_EQ(registry.Create("X")->serializable_type, "third");
  EXPECT_NE(registry.Create("X"), registry.Create("X")) << "every call makes an object";
}

TEST(ClassRegistry, ForgetsANameOnceAndThrowsWhenAnEmptyMakerIsCalled) {
  ClassRegistry<Object> registry;
  EXPECT_FALSE(registry.Unregister("X"));
  registry.Register("X", Maker("x"), false);
  EXPECT_TRUE(registry.Register("Y", nullptr, true));
  auto keys = registry.GetKeys();
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{"X", "Y"}));
  EXPECT_TRUE(registry.Unregister("X"));
  EXPECT_EQ(registry.Create("X"), nullptr);
  EXPECT_EQ(registry.GetKeys(), std::vector<std::string>{"Y"});
  EXPECT_THROW(registry.Create("Y"), std::bad_function_call);
}

}  // namespace
}  // namespace talvo::runtime
