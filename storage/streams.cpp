#include "storage/streams.h"

namespace storage {

long long stream_size_plus_one(FILE *stream) noexcept {
    ::fseeko(stream, 0, SEEK_END);
    long long size = ::ftello(stream);
    std::rewind(stream);
    return size + 1;
}

}  // namespace storage
