// Marks the names the library exports (the linker version script lists the
// same names) and keeps exceptions from crossing the C boundary.
#pragma once

#define FILEOP_EXPORT __attribute__((visibility("default")))

#if defined(__cpp_exceptions)
#define FILEOP_GUARD_BEGIN try {
#define FILEOP_GUARD_END(failure_value) \
    }                                   \
    catch (...) {                       \
        return failure_value;           \
    }
#else
#define FILEOP_GUARD_BEGIN
#define FILEOP_GUARD_END(failure_value)
#endif
