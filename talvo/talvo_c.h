/* The library from C: a package opened, run and asked, without C++ in the application.
 *
 * Functions return a status; talvo_last_error() then holds one line that says what is wrong with which file, layer or
 * argument. No exception leaves. A model and its results belong to one thread at a time; models of several threads are
 * independent. Strings are UTF-8 or any bytes without zeros.
 *
 * Every struct begins with its size in bytes as the application knows it: set it with the INIT macros. A library that
 * knows more fields leaves alone what lies behind that size.
 */
#ifndef TALVO_TALVO_C_H
#define TALVO_TALVO_C_H

#include <stddef.h>
#include <stdint.h>

#include "talvo/utility/export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct talvo_model talvo_model;

typedef enum talvo_status {
  TALVO_OK = 0,
  TALVO_REFUSED = 1,      /* the package, a tensor or an id is not what is needed */
  TALVO_BAD_ARGUMENT = 2, /* a null pointer, a size that no version of a struct has */
  TALVO_TOO_SMALL = 3,    /* the caller's buffer; what is needed was stored */
  TALVO_NO_MEMORY = 4
} talvo_status;

/* Numbers of the file formats. */
typedef enum talvo_data_type {
  TALVO_FLOAT32 = 0,
  TALVO_FLOAT16 = 1,
  TALVO_INT32 = 2,
  TALVO_INT16 = 3,
  TALVO_INT8 = 4,
  TALVO_UINT32 = 5,
  TALVO_UINT16 = 6,
  TALVO_UINT8 = 7
} talvo_data_type;

#define TALVO_MAXIMUM_RANK 8

typedef struct talvo_options {
  size_t size;
  char const* model;    /* id of the model; null: the package's only one */
  char const* backend;  /* "x86", "arm" or "metal"; null: that of the processor built for */
  int32_t prefer_fused; /* not 0: fused siblings in place of portable kernels */
} talvo_options;
#define TALVO_OPTIONS_INIT \
  { sizeof(talvo_options), NULL, NULL, 0 }

/* A tensor in memory, row-major over dims. */
typedef struct talvo_tensor {
  size_t size;
  char const* id;     /* of the layer */
  uint32_t data_type; /* of talvo_data_type */
  int32_t layout;     /* number of talvo::runtime::TensorShape::Layout; of an input -1: by rank, 1 C, 2 SC, 3 CHW, else
                         FLEXIABLE */
  uint32_t rank;      /* entries of dims, at most TALVO_MAXIMUM_RANK */
  uint32_t dims[TALVO_MAXIMUM_RANK];
  void const* data;
  size_t bytes; /* of data */
} talvo_tensor;
#define TALVO_TENSOR_INIT \
  { sizeof(talvo_tensor), NULL, TALVO_FLOAT32, -1, 0, {0}, NULL, 0 }

typedef struct talvo_layer_time {
  size_t size;
  char const* id; /* these two texts belong to the model and live until its next run or profile */
  char const* kernel;
  float milliseconds;
} talvo_layer_time;
#define TALVO_LAYER_TIME_INIT \
  { sizeof(talvo_layer_time), NULL, NULL, 0 }

/* What the last call of this thread that did not return TALVO_OK found; empty at first. Lives until the next such call.
 */
TALVO_API char const* talvo_last_error(void);

/* Where lines of the library's log go, refusals among them: standard output unless told otherwise, nowhere for null. To
 * be called before the library is used; sink may be called from every thread that uses it, and its result is ignored.
 */
TALVO_API void talvo_set_log(int (*sink)(char const* line));

TALVO_API void talvo_version(uint32_t* major, uint32_t* minor);

/* Opens a ".tlnmodel" or ".json" package and builds its net. options may be null. *model is closed by the caller. */
TALVO_API talvo_status talvo_model_open(char const* path, talvo_options const* options, talvo_model** model);
/* The same from bytes, which are read during the call. */
TALVO_API talvo_status talvo_model_open_bytes(void const* bytes, size_t count, talvo_options const* options,
                                              talvo_model** model);
/* Null is passed over. */
TALVO_API void talvo_model_close(talvo_model* model);

/* Inputs and outputs in model order: id, rank and dims as far as the package tells them, 0 for an extent that it does
 * not tell. Ids live as long as the model. TALVO_REFUSED: no such index. */
TALVO_API size_t talvo_model_input_count(talvo_model const* model);
TALVO_API size_t talvo_model_output_count(talvo_model const* model);
TALVO_API talvo_status talvo_model_input(talvo_model const* model, size_t index, talvo_tensor* port);
TALVO_API talvo_status talvo_model_output(talvo_model const* model, size_t index, talvo_tensor* port);

/* Runs the model on a tensor for each input; data is copied. outputs: ids of any layers, null and 0 for the model's
 * own. The results stay in the model until its next run; after a refusal it has none. Recurrent layers keep their
 * state. */
TALVO_API talvo_status talvo_model_run(talvo_model* model, talvo_tensor const* inputs, size_t input_count,
                                       char const* const* outputs, size_t output_count);
/* Describes the first tensor of an output of the last run; data is lent until the next run or the close. */
TALVO_API talvo_status talvo_model_result(talvo_model const* model, char const* id, talvo_tensor* result);
/* Copies an output of the last run. *needed gets its bytes, which buffer must hold; needed may be null. */
TALVO_API talvo_status talvo_model_copy(talvo_model const* model, char const* id, void* buffer, size_t bytes,
                                        size_t* needed);
/* Runs as above and stores the time of each layer, at most `capacity`; *count gets their number. */
TALVO_API talvo_status talvo_model_profile(talvo_model* model, talvo_tensor const* inputs, size_t input_count,
                                           talvo_layer_time* times, size_t capacity, size_t* count);
/* Starts recurrent layers afresh. */
TALVO_API talvo_status talvo_model_reset(talvo_model* model);

/* What CheckModel finds (talvo/entry/check_model.h), a line each, "refused: " or "warning: " in front, as a
 * zero-terminated text; shapes: id, rank and dims of inputs, none for a check without a run. *needed gets its bytes
 * with the zero, which text must hold. TALVO_OK also when something is refused: the text says so. */
TALVO_API talvo_status talvo_package_check(char const* path, talvo_options const* options, talvo_tensor const* shapes,
                                           size_t shape_count, char* text, size_t bytes, size_t* needed);

#ifdef __cplusplus
}
#endif

#endif
