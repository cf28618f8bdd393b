#pragma once
// Base records of every descriptor: tag, length and, for unknown tags, the raw
// payload; plus the checked field helpers the typed descriptors share.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <typeinfo>
#include <utility>
#include <vector>

#include "mpegcore/VQAlignMemory.h"
#include "mpegcore/VQBSReader.h"
#include "mpegcore/VQBSWriter.h"

namespace mpegcore {

using descriptor_reader = VQSDK::VQBSReaderT<unsigned char*>;
using descriptor_writer = VQSDK::VQBSWriterT<unsigned char*>;

// A descriptor of a tag the list does not model: the payload stays raw in
// descriptor_data. Typed descriptors derive from it and leave descriptor_data empty.
class base_descriptor {
public:
    explicit base_descriptor(uint8_t tag = 0) : descriptor_tag(tag) {}
    // Copies own their payload: descriptor_data is duplicated, not shared.
    base_descriptor(const base_descriptor& other);
    base_descriptor& operator=(const base_descriptor& other);
    virtual ~base_descriptor() = default;

    // A new default object of the same class, its tag preset.
    virtual std::shared_ptr<base_descriptor> create() const;
    // Copies every member into target; does nothing when target is of another class.
    virtual void copyTo(base_descriptor* target) const;
    // Tag, stored descriptor_length, then descriptor_length bytes of descriptor_data.
    virtual bool write(descriptor_writer& writer);
    // Tag, length and the raw payload; fails when the payload is not all there.
    virtual bool read(descriptor_reader& reader);

    uint8_t descriptor_tag = 0;
    uint8_t descriptor_length = 0;
    VQSDK::VQAlignMemory<unsigned char> descriptor_data;

protected:
    // Tag and length; true only when descriptor_length bytes remain after them.
    bool readHeader(descriptor_reader& reader);
    // Tag and the stored descriptor_length.
    bool writeHeader(descriptor_writer& writer) const;
};

// Descriptors of tag 0x7F: the first payload byte selects the kind.
class base_descriptor_extension : public base_descriptor {
public:
    explicit base_descriptor_extension(uint8_t extension = 0)
        : base_descriptor(0x7F), descriptor_tag_extension(extension) {}

    std::shared_ptr<base_descriptor> create() const override;
    void copyTo(base_descriptor* target) const override;
    bool write(descriptor_writer& writer) override;
    bool read(descriptor_reader& reader) override;

    uint8_t descriptor_tag_extension = 0;
};

// target as a T when it is exactly of class T, else null: copyTo never
// writes into an object of another class.
template <class T>
T* sameClass(base_descriptor* target) {
    return target && typeid(*target) == typeid(T) ? static_cast<T*>(target) : nullptr;
}

// create() and copyTo() for a concrete class whose members copy by value.
template <class Derived, class Base = base_descriptor>
class descriptor_of : public Base {
public:
    using Base::Base;

    std::shared_ptr<base_descriptor> create() const override { return std::make_shared<Derived>(); }

    void copyTo(base_descriptor* target) const override {
        if (auto* same = sameClass<Derived>(target))
            *same = static_cast<const Derived&>(*this);
    }
};

// Field helpers shared by the descriptor classes. Every put first checks that
// the writer has room for the bits, so a full writer refuses instead of
// silently keeping them in its cache.
namespace descriptor_io {

// Bytes the writer has already taken into its cache plus n bits must fit in
// the room left.
inline bool hasRoom(const descriptor_writer& writer, uint64_t bits) {
    return writer.m_length >= (writer.getCacheBits() + bits + 7) / 8;
}

template <unsigned N, class T>
bool put(descriptor_writer& writer, T value) {
    return hasRoom(writer, N) && writer.putBits<N>(value);
}

// Whole unread bytes, a partly read byte counting as one.
inline uint64_t bytesLeft(const descriptor_reader& reader) { return reader.m_length + reader.getCacheByte(); }

// count bytes one by one into dst; dst must hold count bytes.
bool readBytes(descriptor_reader& reader, void* dst, size_t count);
// count bytes appended to dst.
bool readBytes(descriptor_reader& reader, std::vector<uint8_t>& dst, size_t count);
bool writeBytes(descriptor_writer& writer, const void* src, size_t count);
// The first count bytes of src; fails when src holds fewer.
bool writeBytes(descriptor_writer& writer, const std::vector<uint8_t>& src, size_t count);

// Items read whole, a count of their bytes raised after each, while the count
// stays below length: the last item may reach beyond it.
template <class ReadItem>
bool readCountingUp(unsigned length, unsigned itemSize, ReadItem readItem) {
    for (unsigned count = 0; count < length; count += itemSize)
        if (!readItem())
            return false;
    return true;
}

// Items taken from a remaining length while a whole one is left; a surplus
// shorter than an item stays unread.
template <class ReadItem>
bool readCountingDown(unsigned length, unsigned itemSize, ReadItem readItem) {
    for (unsigned remaining = length; remaining >= itemSize; remaining -= itemSize)
        if (!readItem())
            return false;
    return true;
}

// Copies a list of shared records into fresh records.
template <class List>
List deepCopy(const List& source) {
    List copy;
    for (const auto& record : source)
        copy.push_back(std::make_shared<typename List::value_type::element_type>(*record));
    return copy;
}

}  // namespace descriptor_io

}  // namespace mpegcore
