// Layer records of what combines tensors element by element and of what rearranges or reduces their axes.
#pragma once

#include <memory>
#include <vector>

#include "talvo/serialization/layer_info.h"

namespace talvo::runtime {

class TALVO_API ElementWiseOperatorInfo : public LayerInfo {
 public:
  ElementWiseOperatorInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short op_type = 0;  // 0 add, 1 sub, 2 mul, 3 div
};

class TALVO_API BroadcastOperatorInfo : public LayerInfo {
 public:
  BroadcastOperatorInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short op_type = 0;
};

class TALVO_API ConcatenateInfo : public LayerInfo {
 public:
  ConcatenateInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short dim = 0;
};

class TALVO_API TensorReshapeInfo : public LayerInfo {
 public:
  TensorReshapeInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<short> new_shape;
};

class TALVO_API TensorExpandInfo : public LayerInfo {
 public:
  TensorExpandInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<short> new_shape;
};

class TALVO_API TensorTransposeInfo : public LayerInfo {
 public:
  TensorTransposeInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<unsigned short> axes;
};

class TALVO_API TensorArithmeticInfo : public LayerInfo {
 public:
  TensorArithmeticInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<short> dim;
  unsigned short arith_type = 0;  // 0 sum, 1 mean
};

class TALVO_API TensorSliceInfo : public LayerInfo {
 public:
  TensorSliceInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  std::vector<short> slice_dims;
};

class TALVO_API TensorSqueezeInfo : public LayerInfo {
 public:
  TensorSqueezeInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  short dim = 0;
};

/// A fresh record carries the type number of TensorSqueezeInfo; a model corrects it when it reads the layer.
class TALVO_API TensorUnSqueezeInfo : public LayerInfo {
 public:
  TensorUnSqueezeInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  short dim = 0;
};

/// How one dimension is sampled by TensorGetItemInfo.
class TALVO_API TensorDimemsionSamplingInfo : public Serializable {
 public:
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short sampling_type = 0;
  std::vector<short> data;
};

class TALVO_API TensorGetItemInfo : public LayerInfo {
 public:
  TensorGetItemInfo();
  /// Resizes `sampling_infos` to `num_sampling_infos` and visits each under its decimal index.
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short num_sampling_infos = 0;
  std::vector<TensorDimemsionSamplingInfo> sampling_infos;  // one for each sampled dimension
};

}  // namespace talvo::runtime
