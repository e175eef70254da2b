// The simulated player libraries export their C functions by name.
#pragma once
#define VTRSIM_API __attribute__((visibility("default")))
