/* The shortest application in C: a model package, a tensor for each input, the outputs.
 *
 *   run_model_c PACKAGE     (.tlnmodel or .json)
 *
 * Every input gets one channel of the size that the model was made for, filled with 0.5.
 */
#include <stdio.h>
#include <stdlib.h>

#include "talvo/talvo_c.h"

enum { kMaximumInputs = 8, kMaximumSide = 4096 };

/* A gray picture for one input; its memory is the caller's. 0 when the package tells no size. */
static int MakeInput(talvo_tensor* input) {
  if (input->rank != 3 || input->dims[1] > kMaximumSide || input->dims[2] > kMaximumSide) return 0;
  size_t const count = (size_t)input->dims[1] * input->dims[2];
  float* const gray = malloc(count * sizeof(float));
  if (gray == NULL) return 0;
  for (size_t i = 0; i < count; ++i) gray[i] = 0.5f;
  input->dims[0] = 1;
  input->data = gray;
  input->bytes = count * sizeof(float);
  return 1;
}

static talvo_status PrintOutput(talvo_model const* model, size_t index) {
  talvo_tensor port = TALVO_TENSOR_INIT, result = TALVO_TENSOR_INIT;
  talvo_status status = talvo_model_output(model, index, &port);
  if (status == TALVO_OK) status = talvo_model_result(model, port.id, &result);
  if (status != TALVO_OK) return status;
  printf("%s: [", result.id);
  for (uint32_t i = 0; i < result.rank; ++i) printf("%s%u", i == 0 ? "" : ", ", (unsigned)result.dims[i]);
  printf("]");
  if (result.data_type == TALVO_FLOAT32 && result.bytes > 0)
    printf(", first value %g", (double)((float const*)result.data)[0]);
  printf("\n");
  return TALVO_OK;
}

static talvo_status Run(talvo_model* model) {
  talvo_tensor inputs[kMaximumInputs];
  size_t const given = talvo_model_input_count(model);
  size_t made = 0;
  talvo_status status = TALVO_OK;
  for (; status == TALVO_OK && made < given && made < kMaximumInputs; ++made) {
    inputs[made] = (talvo_tensor)TALVO_TENSOR_INIT;
    status = talvo_model_input(model, made, &inputs[made]);
    if (status == TALVO_OK && !MakeInput(&inputs[made])) break;
  }
  if (status == TALVO_OK) status = talvo_model_run(model, inputs, made, NULL, 0);
  for (size_t i = 0; i < made; ++i) free((void*)inputs[i].data);
  for (size_t i = 0; status == TALVO_OK && i < talvo_model_output_count(model); ++i) status = PrintOutput(model, i);
  return status;
}

int main(int count, char** words) {
  talvo_model* model = NULL;
  if (count != 2) {
    fprintf(stderr, "usage: run_model_c PACKAGE, where PACKAGE ends in .tlnmodel or .json\n");
    return 2;
  }
  talvo_set_log(NULL); /* talvo_last_error says it */
  talvo_status status = talvo_model_open(words[1], NULL, &model);
  if (status == TALVO_OK) status = Run(model);
  if (status != TALVO_OK) fprintf(stderr, "run_model_c: %s\n", talvo_last_error());
  talvo_model_close(model);
  return status == TALVO_OK && fflush(stdout) == 0 ? 0 : 1;
}
