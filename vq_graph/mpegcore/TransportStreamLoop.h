#pragma once
// The transport stream loop of the NIT and the BAT: entries of
// transport_stream_id, original_network_id, 4 reserved bits and a 12-bit
// descriptors length followed by that many bytes of descriptors.

#include <cstdint>

#include "mpegcore/MpegMisc.h"
#include "mpegcore/VQBSReader.h"
#include "mpegcore/VQBSWriter.h"
#include "mpegcore/vqdescriptorlist.h"

namespace mpegcore {

class CTransportStreamLoop {
public:
    // Reads entries while 6 bytes or more of the loop remain; fewer end the
    // loop without error. readEntry() reads one entry and returns its
    // descriptors length, or -1 to fail the loop.
    template <class ReadEntry>
    static bool read(uint16_t loopLength, ReadEntry readEntry) {
        int left = loopLength;
        while (left >= 6) {
            const int descriptorsLength = readEntry();
            if (descriptorsLength < 0)
                return false;
            left -= descriptorsLength + 6;
        }
        return true;
    }

    // Reads one entry's fields into `entry` and `descriptorsLength`, then its
    // descriptors into `list`. A loop longer than the data fails; when
    // `strict`, so do a field that cannot be read and a list that fails.
    template <class Entry>
    static bool readEntry(VQSDK::VQBSReaderT<unsigned char*>& reader, Entry& entry, uint16_t& descriptorsLength,
                          VQDescriptorList& list, bool strict) {
        bool fieldsRead = reader.getBits<16>(entry.transport_stream_id);
        fieldsRead &= reader.getBits<16>(entry.original_network_id);
        fieldsRead &= reader.getBits<4>(entry.reserved_future_use);
        fieldsRead &= reader.getBits<12>(descriptorsLength);
        if (strict && !fieldsRead)
            return false;
        if (descriptorsLength == 0)
            return true;
        const CMpegMisc::loop_result result = CMpegMisc::read_descriptor_loop(reader, descriptorsLength, list);
        return result == CMpegMisc::loop_result::ok || (!strict && result == CMpegMisc::loop_result::list_failed);
    }

    // Writes one entry with its descriptors length taken from its list.
    template <class Entry>
    static void writeEntry(VQSDK::VQBSWriterT<unsigned char*>& writer, Entry& entry, uint16_t& descriptorsLength) {
        CMpegMisc::put_bits<16>(writer, entry.transport_stream_id);
        CMpegMisc::put_bits<16>(writer, entry.original_network_id);
        CMpegMisc::put_bits<4>(writer, entry.reserved_future_use);
        descriptorsLength = entry.descriptors.getSize();
        CMpegMisc::put_bits<12>(writer, descriptorsLength);
        entry.descriptors.write(writer);
    }

    // Bytes of the loop: 6 + descriptors per entry.
    template <class Entries>
    static uint16_t length(const Entries& entries) {
        unsigned length = 0;
        for (const auto& entry : entries)
            length += entry->getSize();
        return static_cast<uint16_t>(length);
    }
};

}  // namespace mpegcore
