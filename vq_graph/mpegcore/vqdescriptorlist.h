#pragma once
// One descriptor loop of a PSI/SI section (or of SCTE 35 splice descriptors)
// as an ordered list of typed descriptor objects.

#include <cstdint>
#include <list>
#include <memory>

#include "mpegcore/BaseDescriptor.h"
#include "mpegcore/DvbDescriptors.h"
#include "mpegcore/MpegDescriptors.h"
#include "mpegcore/Scte35Descriptors.h"
#include "mpegcore/VQBSReader.h"
#include "mpegcore/VQBSWriter.h"

namespace mpegcore {

// The tag space a list reads its descriptors in.
enum VQDescriptorType : int32_t {
    e_ts_desc_type = 0,      // MPEG/DVB descriptors of PSI/SI sections
    e_scte35_desc_type = 1,  // SCTE 35 splice descriptors
};

class VQDescriptorList {
public:
    explicit VQDescriptorList(VQDescriptorType type) : m_type(type) {}
    virtual ~VQDescriptorList() { clear(); }

    VQDescriptorType getType() const { return m_type; }

    // Reads the loop in the list's tag space. The reader must span exactly the
    // loop; descriptors are appended to what the list holds.
    bool read(VQSDK::VQBSReaderT<unsigned char*>& reader);
    bool readTS(VQSDK::VQBSReaderT<unsigned char*>& reader);
    bool readSCTE35(VQSDK::VQBSReaderT<unsigned char*>& reader);

    // Reads one T and appends it; on failure nothing is appended.
    template <class T>
    bool add(VQSDK::VQBSReaderT<unsigned char*>& reader) {
        auto item = std::make_shared<T>();
        base_descriptor& created = *item;
        if (!created.read(reader))
            return false;
        descriptor.push_back(std::move(item));
        return true;
    }

    // Writes every descriptor in order; a writer that runs out of room refuses
    // the rest by itself, so the caller checks the writer.
    void write(VQSDK::VQBSWriterT<unsigned char*>& writer) const;

    // The first descriptor with this tag, or an empty pointer.
    std::shared_ptr<base_descriptor> find(uint8_t tag) const;

    // Sum of descriptor_length + 2 over the list, in 16 bits: the loop length.
    uint16_t getSize() const;

    // Appends deep copies of every descriptor to target (not cleared first).
    void copyTo(VQDescriptorList& target) const;

    void clear() { descriptor.clear(); }

    std::list<std::shared_ptr<base_descriptor>> descriptor;
    VQDescriptorType m_type;

private:
    using AddByTag = bool (VQDescriptorList::*)(uint8_t tag, VQSDK::VQBSReaderT<unsigned char*>& reader);

    // Reads descriptors while at least 3 bytes remain, each by the class that
    // addByTag picks for its tag; stops at the first failure.
    bool readLoop(VQSDK::VQBSReaderT<unsigned char*>& reader, AddByTag addByTag);
    bool addTS(uint8_t tag, VQSDK::VQBSReaderT<unsigned char*>& reader);
    bool addSCTE35(uint8_t tag, VQSDK::VQBSReaderT<unsigned char*>& reader);
};

}  // namespace mpegcore
