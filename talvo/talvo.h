// All public headers of libtln_core.
#pragma once

#include "talvo/entry/create_context.h"
#include "talvo/kernel/native/permute.h"
#include "talvo/kernel/padding.h"
#include "talvo/runtime/context.h"
#include "talvo/runtime/device.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/kernel.h"
#include "talvo/runtime/memory_pool.h"
#include "talvo/runtime/net.h"
#include "talvo/runtime/tensor.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/half.h"
#include "talvo/utility/log.h"
