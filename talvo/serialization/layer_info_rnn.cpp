#include "talvo/serialization/layer_info_rnn.h"

#include "talvo/serialization/record_support.h"
#include "talvo/serialization/weight_blob.h"

namespace talvo::runtime {
namespace {

template <class Record>
void VisitSizes(Record& record, std::shared_ptr<Visitor> const& visitor) {
  TALVO_VISIT_FIELD_OF(record, in_size);
  TALVO_VISIT_FIELD_OF(record, hidden_size);
  TALVO_VISIT_FIELD_OF(record, if_bias);
}

template <class Record>
void VisitActivation(Record& record, std::shared_ptr<Visitor> const& visitor) {
  TALVO_VISIT_FIELD_OF(record, activation_type);
  TALVO_VISIT_FIELD_OF(record, activation_alpha);
  TALVO_VISIT_FIELD_OF(record, activation_beta);
}

template <class Record>
void VisitCellWeights(Record& record, std::shared_ptr<Visitor> const& visitor) {
  TALVO_VISIT_WEIGHTS_OF(record, weight_ih);
  TALVO_VISIT_WEIGHTS_OF(record, weight_hh);
  TALVO_VISIT_WEIGHTS_OF(record, bias_ih);
  TALVO_VISIT_WEIGHTS_OF(record, bias_hh);
}

// A stack of layers in one or two directions, with weights for each layer.
template <class Record>
void VisitStack(Record& record, std::shared_ptr<Visitor> const& visitor) {
  TALVO_VISIT_FIELD_OF(record, num_layers);
  TALVO_VISIT_FIELD_OF(record, bidirectional);
  TALVO_VISIT_FIELD_OF(record, complex_rnn_type);
  TALVO_VISIT_WEIGHTS_OF(record, weight_ih_forward);
  TALVO_VISIT_WEIGHTS_OF(record, weight_hh_forward);
  TALVO_VISIT_WEIGHTS_OF(record, bias_ih_forward);
  TALVO_VISIT_WEIGHTS_OF(record, bias_hh_forward);
  TALVO_VISIT_WEIGHTS_OF(record, weight_ih_reverse);
  TALVO_VISIT_WEIGHTS_OF(record, weight_hh_reverse);
  TALVO_VISIT_WEIGHTS_OF(record, bias_ih_reverse);
  TALVO_VISIT_WEIGHTS_OF(record, bias_hh_reverse);
}

}  // namespace

RNNCellInfo::RNNCellInfo() : LayerInfo(33, "RNNCellInfo") {}

void RNNCellInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitSizes(*this, visitor);
  VisitActivation(*this, visitor);
  VisitCellWeights(*this, visitor);
}

LSTMCellInfo::LSTMCellInfo() : LayerInfo(35, "LSTMCellInfo") {}

void LSTMCellInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitSizes(*this, visitor);
  VisitCellWeights(*this, visitor);
}

GRUCellInfo::GRUCellInfo() : LayerInfo(37, "GRUCellInfo") {}

void GRUCellInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitSizes(*this, visitor);
  VisitCellWeights(*this, visitor);
}

RNNInfo::RNNInfo() : LayerInfo(34, "RNNInfo") {}

void RNNInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitSizes(*this, visitor);
  VisitActivation(*this, visitor);
  VisitStack(*this, visitor);
}

LSTMInfo::LSTMInfo() : LayerInfo(36, "LSTMInfo") {}

void LSTMInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitSizes(*this, visitor);
  VisitStack(*this, visitor);
}

GRUInfo::GRUInfo() : LayerInfo(38, "GRUInfo") {}

void GRUInfo::VisitAttr(std::shared_ptr<Visitor> visitor) {
  support::VisitBase(*this, visitor);
  VisitSizes(*this, visitor);
  VisitStack(*this, visitor);
}

}  // namespace talvo::runtime
