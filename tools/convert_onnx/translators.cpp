#include "tools/convert_onnx/translators.h"

namespace convert_onnx {

Translators const& AllTranslators() {
  static Translators const table = [] {
    Translators made;
    for (auto const add : {AddActivations, AddArithmetic, AddConvolutions, AddProducts, AddPoolings, AddStructure,
                           AddResampling, AddFunctions, AddNormalisations, AddRecurrent, AddFourier, AddLogic})
      add(made);
    return made;
  }();
  return table;
}

Value Unmade(std::string const& why) {
  Value value;
  value.refusal = why;
  return value;
}

}  // namespace convert_onnx
