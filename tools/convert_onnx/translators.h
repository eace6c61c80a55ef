// One function for each operator of the standard, found by its name.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/convert_onnx/builder.h"

namespace convert_onnx {

/// Makes the layers of a node and returns its outputs; one that is not made has a refusal in its place. Refusal: what
/// has no layers of the same meaning.
using Translator = std::vector<Value> (*)(Node const&, Builder&);
using Translators = std::map<std::string, Translator>;

/// All of them, by operator.
Translators const& AllTranslators();

// By what they do; each enters its operators.
void AddActivations(Translators& table);
void AddArithmetic(Translators& table);
void AddConvolutions(Translators& table);
void AddProducts(Translators& table);
void AddPoolings(Translators& table);
void AddStructure(Translators& table);
void AddResampling(Translators& table);
void AddFunctions(Translators& table);
void AddNormalisations(Translators& table);
void AddRecurrent(Translators& table);
void AddFourier(Translators& table);
void AddLogic(Translators& table);

/// An output that no layer makes.
Value Unmade(std::string const& why);

}  // namespace convert_onnx
