#include "talvo/serialization/layer_info_rnn.h"

#include "talvo/serialization/record_support.h"
#include "talvo/serialization/weight_blob.h"

namespace talvo::runtime {

RNNCellInfo::RNNCellInfo() : LayerInfo(33, "RNNCellInfo") {}

void RNNCellInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  LayerInfo::VisitAttr(visitor);
  TALVO_VISIT_FIELD(in_size);
  TALVO_VISIT_FIELD(hidden_size);
  TALVO_VISIT_FIELD(if_bias);
  TALVO_VISIT_FIELD(activation_type);
  TALVO_VISIT_FIELD(activation_alpha);
  TALVO_VISIT_FIELD(activation_beta);
  TALVO_VISIT_WEIGHTS(weight_ih);
  TALVO_VISIT_WEIGHTS(weight_hh);
  TALVO_VISIT_WEIGHTS(bias_ih);
  TALVO_VISIT_WEIGHTS(bias_hh);
}

LSTMCellInfo::LSTMCellInfo() : LayerInfo(35, "LSTMCellInfo") {}

void LSTMCellInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  LayerInfo::VisitAttr(visitor);
  TALVO_VISIT_FIELD(in_size);
  TALVO_VISIT_FIELD(hidden_size);
  TALVO_VISIT_FIELD(if_bias);
  TALVO_VISIT_WEIGHTS(weight_ih);
  TALVO_VISIT_WEIGHTS(weight_hh);
  TALVO_VISIT_WEIGHTS(bias_ih);
  TALVO_VISIT_WEIGHTS(bias_hh);
}

GRUCellInfo::GRUCellInfo() : LayerInfo(37, "GRUCellInfo") {}

void GRUCellInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  LayerInfo::VisitAttr(visitor);
  TALVO_VISIT_FIELD(in_size);
  TALVO_VISIT_FIELD(hidden_size);
  TALVO_VISIT_FIELD(if_bias);
  TALVO_VISIT_WEIGHTS(weight_ih);
  TALVO_VISIT_WEIGHTS(weight_hh);
  TALVO_VISIT_WEIGHTS(bias_ih);
  TALVO_VISIT_WEIGHTS(bias_hh);
}

RNNInfo::RNNInfo() : LayerInfo(34, "RNNInfo") {}

void RNNInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  LayerInfo::VisitAttr(visitor);
  TALVO_VISIT_FIELD(in_size);
  TALVO_VISIT_FIELD(hidden_size);
  TALVO_VISIT_FIELD(if_bias);
  TALVO_VISIT_FIELD(activation_type);
  TALVO_VISIT_FIELD(activation_alpha);
  TALVO_VISIT_FIELD(activation_beta);
  TALVO_VISIT_FIELD(num_layers);
  TALVO_VISIT_FIELD(bidirectional);
  TALVO_VISIT_FIELD(complex_rnn_type);
  TALVO_VISIT_WEIGHTS(weight_ih_forward);
  TALVO_VISIT_WEIGHTS(weight_hh_forward);
  TALVO_VISIT_WEIGHTS(bias_ih_forward);
  TALVO_VISIT_WEIGHTS(bias_hh_forward);
  TALVO_VISIT_WEIGHTS(weight_ih_reverse);
  TALVO_VISIT_WEIGHTS(weight_hh_reverse);
  TALVO_VISIT_WEIGHTS(bias_ih_reverse);
  TALVO_VISIT_WEIGHTS(bias_hh_reverse);
}

LSTMInfo::LSTMInfo() : LayerInfo(36, "LSTMInfo") {}

void LSTMInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  LayerInfo::VisitAttr(visitor);
  TALVO_VISIT_FIELD(in_size);
  TALVO_VISIT_FIELD(hidden_size);
  TALVO_VISIT_FIELD(if_bias);
  TALVO_VISIT_FIELD(num_layers);
  TALVO_VISIT_FIELD(bidirectional);
  TALVO_VISIT_FIELD(complex_rnn_type);
  TALVO_VISIT_WEIGHTS(weight_ih_forward);
  TALVO_VISIT_WEIGHTS(weight_hh_forward);
  TALVO_VISIT_WEIGHTS(bias_ih_forward);
  TALVO_VISIT_WEIGHTS(bias_hh_forward);
  TALVO_VISIT_WEIGHTS(weight_ih_reverse);
  TALVO_VISIT_WEIGHTS(weight_hh_reverse);
  TALVO_VISIT_WEIGHTS(bias_ih_reverse);
  TALVO_VISIT_WEIGHTS(bias_hh_reverse);
}

GRUInfo::GRUInfo() : LayerInfo(38, "GRUInfo") {}

void GRUInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  LayerInfo::VisitAttr(visitor);
  TALVO_VISIT_FIELD(in_size);
  TALVO_VISIT_FIELD(hidden_size);
  TALVO_VISIT_FIELD(if_bias);
  TALVO_VISIT_FIELD(num_layers);
  TALVO_VISIT_FIELD(bidirectional);
  TALVO_VISIT_FIELD(complex_rnn_type);
  TALVO_VISIT_WEIGHTS(weight_ih_forward);
  TALVO_VISIT_WEIGHTS(weight_hh_forward);
  TALVO_VISIT_WEIGHTS(bias_ih_forward);
  TALVO_VISIT_WEIGHTS(bias_hh_forward);
  TALVO_VISIT_WEIGHTS(weight_ih_reverse);
  TALVO_VISIT_WEIGHTS(weight_hh_reverse);
  TALVO_VISIT_WEIGHTS(bias_ih_reverse);
  TALVO_VISIT_WEIGHTS(bias_hh_reverse);
}

}  // namespace talvo::runtime
