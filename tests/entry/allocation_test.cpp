// What the library does when memory runs out, and how seldom it asks for some. The linker sends the library's calls of
// the system's allocation here, where they are counted and the one that a test chose fails.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "talvo/talvo.h"
#include "tests/runtime/scripted_kernel.h"
#include "tests/support/application.h"
#include "tests/support/bits.h"
#include "tests/support/model_builder.h"
#include "tests/support/scratch_folder.h"

namespace {

long aligned_allocations = 0;
long live_objects = 0;   // of operator new
long until_failure = 0;  // counts down to the allocation that fails; 0: none does

bool Fails() { return until_failure > 0 && --until_failure == 0; }

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_realloc(void* block, std::size_t size);
int __real_posix_memalign(void** block, std::size_t alignment, std::size_t size);

void* __wrap_malloc(std::size_t size) { return Fails() ? nullptr : __real_malloc(size); }
void* __wrap_realloc(void* block, std::size_t size) { return Fails() ? nullptr : __real_realloc(block, size); }
int __wrap_posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  ++aligned_allocations;
  return Fails() ? ENOMEM : __real_posix_memalign(block, alignment, size);
}
}

// Not inlined: the compiler would see a mismatch of either with the other's insides.
__attribute__((noinline)) void* operator new(std::size_t size) {
  void* const block = Fails() ? nullptr : __real_malloc(size != 0 ? size : 1);
  if (block == nullptr) throw std::bad_alloc();
  ++live_objects;
  return block;
}
__attribute__((noinline)) void operator delete(void* block) noexcept {
  if (block != nullptr) --live_objects;
  std::free(block);
}
__attribute__((noinline)) void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

namespace talvo {
namespace {

using namespace talvo::runtime;
using test::ModelBuilder;
using test::ScriptedKernel;
using test::Tensors;
using Outputs = std::vector<std::vector<float>>;

// A net of `sizes`: each layer makes a tensor of its size, with a scratch tensor of 100 elements beside it.
Net NetOf(std::vector<unsigned int> const& sizes) {
  std::vector<std::shared_ptr<Layer>> layers;
  for (std::uint32_t index = 0; index < sizes.size(); ++index) {
    layers.push_back(std::make_shared<Layer>());
    layers[index]->type = index == 0 ? "Input" : "Make";
    if (index > 0) layers[index]->input_refs = {{index - 1, 0}};
    if (index + 1 < sizes.size()) layers[index]->consumers = {{index + 1, 0}};
    layers[index]->kernel = std::make_shared<ScriptedKernel>(
        [size = sizes[index]](Tensors const&, Tensors& outputs, Context const& context) {
          auto const scratch = context.device_cpu->CreateZeroF32CMainMem(100);
          outputs.push_back(context.device_cpu->CreateZeroF32CMainMem(size));
        });
  }
  return Net(layers, {});
}

// A request may be served from a block far above its size, so shapes that grow along the net take some passes.
TEST(Allocation, PassesOverFixedShapesSoonTakeNothingFromTheSystem) {
  for (auto const& [first_passes, sizes] :
       std::vector<std::pair<int, std::vector<unsigned int>>>{{1, {5000, 5000, 5000, 5000, 5000, 5000}},
                                                              {1, {90000, 40000, 20000, 5000, 1000, 1000, 10}},
                                                              {10, {100, 200, 400, 800, 1600, 3200, 6400}}}) {
    SCOPED_TRACE(sizes[0]);
    std::shared_ptr<Context> context;
    utility::create_context(context, 64);
    Net const net = NetOf(sizes);
    auto const input = context->device_cpu->CreateZeroF32CMainMem(300);
    auto const pass = [&, last = static_cast<unsigned int>(sizes.size()) - 1] {
      net.Forward({{0, input}}, {last}, context, nullptr, nullptr);
    };
    long const before = aligned_allocations;
    for (int i = 0; i < first_passes; ++i) pass();
    long const after_first = aligned_allocations;
    EXPECT_GT(after_first, before) << "the first pass fills the pool, and the calls are counted";
    pass();
    EXPECT_EQ(aligned_allocations, after_first);
  }
}

std::shared_ptr<Tensor> Picture(Context const& context) {
  return test::FloatTensor(context, {3, 8, 8}, TensorShape::CHW, test::Floats(1, 192));
}

std::shared_ptr<Tensor> Steps(Context const& context) {
  return test::FloatTensor(context, {5, 4}, TensorShape::SC, test::Floats(2, 20));
}

#if TALVO_WITH_IMAGE
// A frame that lies on its side, made ready for the model.
std::shared_ptr<Tensor> PictureOfAFrame(Context const& context) {
  auto& device = *context.device_cpu;
  auto const bytes = test::Bytes(3, 12 * 10 * 4);
  std::shared_ptr<Tensor> const images[] = {
      device.CreateRGBA8888Tensor(12, 10, bytes.data()), device.CreateRGBA8888Tensor(8, 8, nullptr),
      device.CreateBGRUInt8CHWTensor(8, 8, nullptr), device.CreateBGRUInt8CHWTensor(8, 8, nullptr),
      device.CreateF32CHWMainMem({3, 8, 8}, nullptr)};
  images[0]->shape.layout = images[1]->shape.layout = TensorShape::FLEXIABLE;
  kernel::ImageProcessFallback process;
  int const codes[] = {84, 3, 50, 65};  // to its size, to planes in BGR, turned, to floats
  for (std::size_t i = 0; i < std::size(codes); ++i) {
    auto from = images[i], to = images[i + 1];
    process.ConvertPixel(from, to, codes[i], nullptr);
    if (i == 0) to->shape.layout = TensorShape::HWC;
  }
  return images[4];
}
#endif

ModelBuilder RecurrentModel() {
  ModelBuilder net;
  net.AddInput("steps");
  auto& lstm = net.Add<LSTMInfo>("lstm", {"steps"}, "LSTM_Fallback_SC_F32_M1");
  lstm.in_size = 4;
  lstm.hidden_size = 3;
  lstm.num_layers = 2;
  lstm.if_bias = lstm.bidirectional = true;
  for (auto* const weight : {&lstm.weight_ih_forward, &lstm.weight_ih_reverse})
    *weight = {test::WeightText(test::Floats(4, 12 * 4)), test::WeightText(test::Floats(5, 12 * 6))};
  for (auto* const weight : {&lstm.weight_hh_forward, &lstm.weight_hh_reverse})
    weight->assign(2, test::WeightText(test::Floats(6, 12 * 3)));
  for (auto* const bias : {&lstm.bias_ih_forward, &lstm.bias_hh_forward, &lstm.bias_ih_reverse, &lstm.bias_hh_reverse})
    bias->assign(2, test::WeightText(test::Floats(7, 12)));
  net.model->squential_output_ids = {"lstm"};
  return net;
}

// Runs with the k-th allocation failing, and then again; false when the run ended before that allocation.
bool SurvivesFailure(std::string const& path, test::Application::Input const& input, long k, Outputs const& want) {
  test::Application application(path);
  Outputs got;
  until_failure = k;
  try {
    got = application.Run(input);
  } catch (std::exception const&) {
  }
  bool const reached = until_failure == 0;
  until_failure = 0;
  if (got.empty()) got = application.Run(input);
  for (std::size_t i = 0; i < want.size(); ++i) test::ExpectSameBits(want[i], got.at(i));
  return reached;
}

TEST(Allocation, EachMayFailAndLeavesNothingBehind) {
  utility::SetLogCallback([](char const*) { return 0; });
  test::ScratchFolder const folder;
  using Row = std::tuple<char const*, ModelBuilder, test::Application::Input>;
  Row const rows[] = {
    {"picture", test::SmallModel(), Picture},
#if TALVO_WITH_IMAGE
    {"frame", test::SmallModel(), PictureOfAFrame},
#endif
    {"steps", RecurrentModel(), Steps}
  };
  for (auto const& [name, model, input] : rows) {
    for (std::string const form : {"bin", "json"}) {
      std::string const path = folder.Path(name + std::string(form == "bin" ? ".tlnmodel" : ".json"));
      model.Package("m")->ToFile(path.c_str(), form.c_str());
      Outputs const want = test::Application(path).Run(input);
      long const live = live_objects;
      for (long k = 1; SurvivesFailure(path, input, k, want); ++k) {
        ASSERT_FALSE(HasFailure()) << path << ", allocation " << k;
        ASSERT_EQ(live_objects, live) << path << ", allocation " << k;
      }
    }
  }
}

}  // namespace
}  // namespace talvo
