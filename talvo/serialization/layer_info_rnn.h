// Layer records of recurrent cells and of stacks of them. Weights of a cell are strings; a stack has one string for
// each of its layers and directions. weight_ih [gates * hidden_size, in_size], weight_hh with hidden_size columns.
#pragma once

#include <string>
#include <vector>

#include "talvo/serialization/layer_info.h"
#include "talvo/utility/half.h"

namespace talvo::runtime {

class TALVO_API RNNCellInfo : public LayerInfo {
 public:
  RNNCellInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_size = 0, hidden_size = 0;
  bool if_bias = false;
  unsigned short activation_type = 0;
  half_float::half activation_alpha{0.0f}, activation_beta{0.0f};
  std::string weight_ih, weight_hh, bias_ih, bias_hh;
};

class TALVO_API LSTMCellInfo : public LayerInfo {
 public:
  LSTMCellInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_size = 0, hidden_size = 0;
  bool if_bias = false;
  std::string weight_ih, weight_hh, bias_ih, bias_hh;  // gates i, f, g, o
};

class TALVO_API GRUCellInfo : public LayerInfo {
 public:
  GRUCellInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_size = 0, hidden_size = 0;
  bool if_bias = false;
  std::string weight_ih, weight_hh, bias_ih, bias_hh;  // gates r, z, n
};

class TALVO_API RNNInfo : public LayerInfo {
 public:
  RNNInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_size = 0, hidden_size = 0;
  bool if_bias = false;
  unsigned short activation_type = 0;
  half_float::half activation_alpha{0.0f}, activation_beta{0.0f};
  unsigned short num_layers = 0;
  bool bidirectional = false;
  unsigned short complex_rnn_type = 0;
  std::vector<std::string> weight_ih_forward, weight_hh_forward, bias_ih_forward, bias_hh_forward;
  std::vector<std::string> weight_ih_reverse, weight_hh_reverse, bias_ih_reverse, bias_hh_reverse;
};

class TALVO_API LSTMInfo : public LayerInfo {
 public:
  LSTMInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_size = 0, hidden_size = 0;
  bool if_bias = false;
  unsigned short num_layers = 0;
  bool bidirectional = false;
  unsigned short complex_rnn_type = 0;
  std::vector<std::string> weight_ih_forward, weight_hh_forward, bias_ih_forward, bias_hh_forward;  // gates i, f, g, o
  std::vector<std::string> weight_ih_reverse, weight_hh_reverse, bias_ih_reverse, bias_hh_reverse;
};

class TALVO_API GRUInfo : public LayerInfo {
 public:
  GRUInfo();
  void VisitAttr(std::shared_ptr<Visitor> visitor) override;

  unsigned short in_size = 0, hidden_size = 0;
  bool if_bias = false;
  unsigned short num_layers = 0;
  bool bidirectional = false;
  unsigned short complex_rnn_type = 0;
  std::vector<std::string> weight_ih_forward, weight_hh_forward, bias_ih_forward, bias_hh_forward;  // gates r, z, n
  std::vector<std::string> weight_ih_reverse, weight_hh_reverse, bias_ih_reverse, bias_hh_reverse;
};

}  // namespace talvo::runtime
