#include "talvo/runtime/class_registry.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "talvo/serialization/layer_info.h"

namespace talvo::runtime {
namespace {

using Object = std::shared_ptr<Serializable>;

TEST(ClassRegistry, KeepsTheFirstMakerUnlessToldAndForgetsANameOnce) {
  ClassRegistry<Object> registry;
  auto const made = [] { return std::make_shared<LayerInfo>(); };
  auto const fixed = [object = std::make_shared<Serializable>()] { return object; };
  EXPECT_FALSE(registry.Unregister("X"));
  EXPECT_TRUE(registry.Register("X", made, false));
  EXPECT_FALSE(registry.Register("X", fixed, false));
  EXPECT_NE(registry.Create("X"), registry.Create("X")) << "every call makes an object";
  EXPECT_TRUE(registry.Register("X", fixed, true));
  EXPECT_EQ(registry.Create("X"), fixed());
  EXPECT_TRUE(registry.Register("Y", nullptr, true));
  auto keys = registry.GetKeys();
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{"X", "Y"}));
  EXPECT_TRUE(registry.Unregister("X"));
  EXPECT_EQ(registry.Create("X"), nullptr);
  EXPECT_EQ(registry.GetKeys(), std::vector<std::string>{"Y"});
  EXPECT_THROW(registry.Create("Y"), std::bad_function_call) << "an empty maker";
}

}  // namespace
}  // namespace talvo::runtime
