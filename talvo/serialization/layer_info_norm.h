// Layer records of the normalisations.
#pragma once

#include "talvo/serialization/layer_info.h"

namespace talvo::runtime {

class TALVO_API BatchNorm2dInfo : public LayerInfo {
 public:
  BatchNorm2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short num_features = 0;  // channels
  float eps = 0.00001f, momentum = 0.1f;
  bool if_affine = true, if_track_running_stats = true;
  std::string scale, shift, variance, mean;
  int num_batches_tracked = -1;  // in files from version 20005 on
};

class TALVO_API BatchNorm1dInfo : public LayerInfo {
 public:
  BatchNorm1dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short num_features = 0;
  float eps = 0.00001f, momentum = 0.1f;
  bool if_affine = true, if_track_running_stats = true;
  std::string scale, shift, variance, mean;
  int num_batches_tracked = -1;  // in files from version 20005 on
};

class TALVO_API InstanceNorm2dInfo : public LayerInfo {
 public:
  InstanceNorm2dInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short num_features = 0;
  float eps = 0.00001f, momentum = 0.1f;
  bool if_affine = false, if_track_running_stats = false;
  std::string scale, shift;
};

}  // namespace talvo::runtime
