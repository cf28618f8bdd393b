#pragma once
// Byte-level helpers for the descriptor suites: read a loop or one descriptor
// from bytes, write one back to bytes.

#include <cstdint>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "mpegcore/vqdescriptorlist.h"

namespace vq_test {

using Bytes = std::vector<uint8_t>;

// Reads `bytes` as one loop into `list`; `left` receives the unread bytes.
inline bool readLoop(mpegcore::VQDescriptorList& list, Bytes bytes, uint64_t* left = nullptr) {
    mpegcore::descriptor_reader reader(bytes.data(), bytes.size());
    const bool ok = list.read(reader);
    if (left)
        *left = mpegcore::descriptor_io::bytesLeft(reader);
    return ok;
}

// Reads one descriptor through its virtual read; `left` as for readLoop.
inline bool readDescriptor(mpegcore::base_descriptor& descriptor, Bytes bytes, uint64_t* left = nullptr) {
    mpegcore::descriptor_reader reader(bytes.data(), bytes.size());
    const bool ok = descriptor.read(reader);
    if (left)
        *left = mpegcore::descriptor_io::bytesLeft(reader);
    return ok;
}

// The bytes a descriptor writes into a buffer of `capacity` bytes; `ok` its result.
inline Bytes writeDescriptor(mpegcore::base_descriptor& descriptor, bool* ok = nullptr, size_t capacity = 1024) {
    Bytes buffer(capacity);
    mpegcore::descriptor_writer writer(buffer.data(), buffer.size());
    const bool written = descriptor.write(writer);
    if (ok)
        *ok = written;
    writer.flush();
    buffer.resize(writer.getWritedBytes());
    return buffer;
}

inline Bytes writeLoop(const mpegcore::VQDescriptorList& list, size_t capacity = 4096) {
    Bytes buffer(capacity);
    mpegcore::descriptor_writer writer(buffer.data(), buffer.size());
    list.write(writer);
    writer.flush();
    buffer.resize(writer.getWritedBytes());
    return buffer;
}

template <class T>
std::shared_ptr<T> as(const std::shared_ptr<mpegcore::base_descriptor>& descriptor) {
    return std::dynamic_pointer_cast<T>(descriptor);
}

// Writes `built` and expects `expected`; reads those bytes into a fresh T,
// through its own read and through a list of `space`, expecting the list to
// pick T and the read to consume them all; returns the fresh object for the
// caller's member checks after checking that it writes the same bytes again.
template <class T>
T roundTrip(T& built, const Bytes& expected, mpegcore::VQDescriptorType space = mpegcore::e_ts_desc_type) {
    bool written = false;
    const Bytes bytes = writeDescriptor(built, &written);
    EXPECT_TRUE(written);
    EXPECT_EQ(bytes, expected);

    T back;
    uint64_t left = ~0ull;
    EXPECT_TRUE(readDescriptor(back, expected, &left));
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(back.descriptor_tag, built.descriptor_tag);
    EXPECT_EQ(back.descriptor_length, built.descriptor_length);
    EXPECT_EQ(writeDescriptor(back), expected);

    mpegcore::VQDescriptorList list(space);
    EXPECT_TRUE(readLoop(list, expected));
    EXPECT_EQ(list.descriptor.size(), 1u);
    if (!list.descriptor.empty()) {
        const auto& created = *list.descriptor.front();
        EXPECT_EQ(typeid(created), typeid(T));
    }
    EXPECT_EQ(writeLoop(list), expected);
    return back;
}

}  // namespace vq_test
