#include "mpegcore/BaseDescriptor.h"

#include <cstring>

namespace mpegcore {

namespace {
constexpr unsigned long kPayloadAlign = 8;
}

base_descriptor::base_descriptor(const base_descriptor& other)
    : descriptor_tag(other.descriptor_tag), descriptor_length(other.descriptor_length) {
    if (other.descriptor_data.isValid()) {
        descriptor_data.alloc(other.descriptor_data.size(), kPayloadAlign);
        if (other.descriptor_data.size())
            std::memcpy(descriptor_data.get(), other.descriptor_data.get(), other.descriptor_data.size());
    }
}

base_descriptor& base_descriptor::operator=(const base_descriptor& other) {
    if (this != &other) {
        base_descriptor copy(other);
        descriptor_tag = copy.descriptor_tag;
        descriptor_length = copy.descriptor_length;
        descriptor_data = std::move(copy.descriptor_data);
    }
    return *this;
}

std::shared_ptr<base_descriptor> base_descriptor::create() const { return std::make_shared<base_descriptor>(); }

void base_descriptor::copyTo(base_descriptor* target) const {
    if (auto* same = sameClass<base_descriptor>(target))
        *same = *this;
}

bool base_descriptor::readHeader(descriptor_reader& reader) {
    return reader.getBits<8>(descriptor_tag) && reader.getBits<8>(descriptor_length) &&
           descriptor_io::bytesLeft(reader) >= descriptor_length;
}

bool base_descriptor::writeHeader(descriptor_writer& writer) const {
    return descriptor_io::put<8>(writer, descriptor_tag) && descriptor_io::put<8>(writer, descriptor_length);
}

bool base_descriptor::read(descriptor_reader& reader) {
    if (!readHeader(reader))
        return false;
    descriptor_data.alloc(descriptor_length, kPayloadAlign);
    return descriptor_io::readBytes(reader, descriptor_data.get(), descriptor_length);
}

bool base_descriptor::write(descriptor_writer& writer) {
    if (!writeHeader(writer))
        return false;
    if (!descriptor_data.isValid() || descriptor_length == 0)
        return true;
    if (descriptor_data.size() < descriptor_length)
        return false;
    return descriptor_io::writeBytes(writer, descriptor_data.get(), descriptor_length);
}

std::shared_ptr<base_descriptor> base_descriptor_extension::create() const {
    return std::make_shared<base_descriptor_extension>();
}

void base_descriptor_extension::copyTo(base_descriptor* target) const {
    if (auto* same = sameClass<base_descriptor_extension>(target))
        *same = *this;
}

bool base_descriptor_extension::read(descriptor_reader& reader) {
    return readHeader(reader) && reader.getBits<8>(descriptor_tag_extension);
}

bool base_descriptor_extension::write(descriptor_writer& writer) {
    return writeHeader(writer) && descriptor_io::put<8>(writer, descriptor_tag_extension);
}

namespace descriptor_io {

bool readBytes(descriptor_reader& reader, void* dst, size_t count) {
    auto* bytes = static_cast<unsigned char*>(dst);
    for (size_t i = 0; i < count; ++i)
        if (!reader.getBits<8>(bytes[i]))
            return false;
    return true;
}

bool readBytes(descriptor_reader& reader, std::vector<uint8_t>& dst, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        uint8_t byte = 0;
        if (!reader.getBits<8>(byte))
            return false;
        dst.push_back(byte);
    }
    return true;
}

bool writeBytes(descriptor_writer& writer, const void* src, size_t count) {
    const auto* bytes = static_cast<const unsigned char*>(src);
    for (size_t i = 0; i < count; ++i)
        if (!put<8>(writer, bytes[i]))
            return false;
    return true;
}

bool writeBytes(descriptor_writer& writer, const std::vector<uint8_t>& src, size_t count) {
    return src.size() >= count && writeBytes(writer, src.data(), count);
}

}  // namespace descriptor_io

}  // namespace mpegcore
