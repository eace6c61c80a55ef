// Layer records of the activation functions.
#pragma once

#include "talvo/serialization/layer_info.h"
#include "talvo/utility/half.h"

namespace talvo::runtime {

class TALVO_API ActivationInfo : public LayerInfo {
 public:
  ActivationInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short activation_type = 0;  // describes only: the kernel is chosen by name
  half_float::half activation_alpha{1.0f};
  half_float::half activation_beta{0.0f};
  short num_parameters = 1;  // in files from version 20012 on, as is `weight`
  std::string weight;        // stays text in the binary stream too, at full precision
};

class TALVO_API ClipInfo : public LayerInfo {
 public:
  ClipInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  half_float::half minimum_value{-65504.0f};
  half_float::half maximum_value{65504.0f};
};

class TALVO_API SoftmaxInfo : public LayerInfo {
 public:
  SoftmaxInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short dim = 0;
};

}  // namespace talvo::runtime
