#pragma once
// Stateless helpers: bit fields in byte arrays, PCR tests and conversion,
// stream type classes, SI time fields (MJD + BCD) and the section-reading
// steps every table repeats.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <utility>

#include "mpegcore/VQBSReader.h"
#include "mpegcore/VQBSWriter.h"

namespace mpegcore {

class CBaseMpegTable;
class VQDescriptorList;
struct transport_packet;

class CMpegMisc {
public:
    // Writes the low n (1..64) bits of value, most significant first, at bit
    // offset bitPos of a size-byte array; false (nothing written) when the
    // field does not fit.
    static bool AddBitToStream(unsigned char* data, size_t size, size_t bitPos, uint64_t value, unsigned n);
    // Reads n (1..64) bits at bit offset bitPos; false when they are not all there.
    static bool GetBitsFromStream(const unsigned char* data, size_t size, size_t bitPos, unsigned n, uint64_t& value);

    // Whether a raw 188-byte packet carries a PCR (adaptation field present,
    // non-empty, PCR_flag set). Looks only inside the size bytes given.
    static bool HasPCR(const unsigned char* packet, size_t size);
    // The same for a parsed packet.
    static bool hasPCR(const transport_packet& packet);
    // PCR base (90 kHz) and extension (27 MHz) as nanoseconds.
    static uint64_t pcrToNanosecond(uint64_t base, uint16_t extension);

    // Stream types that carry video: MPEG-1/2, MPEG-4 part 2, AVC and its
    // SVC/MVC layers, HEVC, AVS2/AVS3, VC-1 and Dirac.
    static bool is_video_stream_type(uint8_t stream_type);

    // A number's decimal text read back as hexadecimal: 12 becomes 0x12.
    // Not limited: 123 becomes 0x123.
    static uint64_t decimal_to_bcd(uint64_t value);
    // A BCD byte's hexadecimal text read back as decimal, up to the first
    // non-decimal digit: 0x59 becomes 59, 0x1A becomes 1, 0xA1 becomes 0.
    static int bcd_to_decimal(uint8_t bcd);

    // (hours << 16) + (minutes << 8) + seconds, each as decimal_to_bcd.
    static uint32_t time_to_bcd(uint64_t hours, uint64_t minutes, uint64_t seconds);

    // Modified Julian Date into a calendar date (EN 300 468 Annex C):
    // years since 1900, month 1..12, day of month.
    static void mjd_to_date(uint32_t mjd, int& year, int& month, int& day);
    // A calendar date (years since 1900, month 0..11, day) into an MJD.
    static uint64_t date_to_mjd(int year, int month, int day);

    // The 40-bit SI time (MJD in bits 39..24, BCD hhmmss below) broken down
    // as UTC, unnormalised: tm_year since 1900, tm_mon 0..11.
    static std::tm utc_time_to_tm(uint64_t utc_time);
    // The 40-bit SI time as POSIX time.
    static time_t utc_time_to_time_t(uint64_t utc_time);
    // POSIX time as the 40-bit SI time; 0 when the time cannot be broken down.
    static uint64_t time_t_to_utc_time(time_t time);

    // The common section header through the base's read, after making sure
    // the reader holds the 3 header bytes; false otherwise. Only with a whole
    // header may the section's length and CRC be checked from its start.
    static bool read_section_header(CBaseMpegTable& table, VQSDK::VQBSReaderT<unsigned char*>& reader);

    // Result of read_descriptor_loop.
    enum class loop_result { ok, list_failed, too_long };

    // Reads a descriptor loop of `length` bytes into `list` through a second
    // reader over exactly those bytes, then moves `reader` past them whatever
    // the list consumed. too_long (nothing read) when the loop does not fit
    // in what the reader has left.
    static loop_result read_descriptor_loop(VQSDK::VQBSReaderT<unsigned char*>& reader, uint16_t length,
                                            VQDescriptorList& list);

    // Reads N bits into field; on running out of data the field becomes 0
    // (not the bits read so far) and the result is false.
    template <unsigned N, class T>
    static bool get_or_zero(VQSDK::VQBSReaderT<unsigned char*>& reader, T& field) {
        if (reader.getBits<N>(field))
            return true;
        field = 0;
        return false;
    }

    // Writes the low N bits of value; wider values are cut to the field
    // instead of spilling into the fields written before.
    template <unsigned N, class T>
    static bool put_bits(VQSDK::VQBSWriterT<unsigned char*>& writer, T value) {
        return writer.putBits<N>(static_cast<uint64_t>(value) & VQSDK::g_bitMask[N]);
    }

    // Copies the common header fields (table_id to section_length).
    static void copy_section_header(const CBaseMpegTable& from, CBaseMpegTable& to);
};

}  // namespace mpegcore
