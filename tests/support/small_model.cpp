#include "tests/support/small_model.h"

#include <gtest/gtest.h>

namespace talvo::test {

ModelBuilder SmallModel() {
  runtime::TLNModel file;
  EXPECT_TRUE(file.FromFile("fuzz/corpus/run_package/small.json", "json"));
  ModelBuilder small;
  small.model = file.model_arr->models.at("small");
  small.config = file.config_arr->configs.at("small")->cpu_sse;
  return small;
}

}  // namespace talvo::test
