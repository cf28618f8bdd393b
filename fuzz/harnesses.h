#pragma once
// Fuzz harness bodies for the mpegcore input paths. Each one runs one input
// through a library entry point and checks what the library hands back
// (packet bounds, sizes, sync bytes, render agreement). The libFuzzer targets
// and the regression replay suite call the same functions.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vq_fuzz {

// Empty when every check held, otherwise a description of the first broken
// one. Memory errors are left to the sanitizers.
using Harness = std::string (*)(const uint8_t* data, size_t size);

struct Target {
    const char* name;  // fuzz_<name> executable, fuzz/corpus/<name>/ seeds
    Harness run;
};

// Every harness, in the order the fuzz script runs them.
const std::vector<Target>& targets();
// The harness of that name, or null.
const Target* findTarget(const std::string& name);

// Input layouts. A leading control byte lets the fuzzer steer options
// without a separate channel.

// vq_mpegts_sync: [n | resetFlag << 4] [n big-endian 16-bit frame sizes]
// [stream bytes]; the bytes are pushed as frames of those sizes in turn.
std::string fuzzSync(const uint8_t* data, size_t size);

// CBaseMpegParser::Process: [control] [transport stream bytes]; control
// bit 0 keeps the tail, bits 1-3 pick the chunk size, bit 4 clears the
// parser after the first chunk.
std::string fuzzParser(const uint8_t* data, size_t size);

// CT2MIToTS: [mode] [plp] ... A fixed PAT and PMT (T2-MI on PID 0x40)
// precede the stream. Mode bit 0 clear: raw transport stream bytes follow.
// Mode bit 0 set: [flags] then records [type][length 16][payload], each made
// into a T2-MI packet with a valid CRC-32 (baseband frames also get a valid
// header CRC-8 unless flags bit 1 is set) and carried on the T2-MI PID
// (packed back to back when flags bit 0 is set).
std::string fuzzT2MI(const uint8_t* data, size_t size);

// CTsAnalyzer: [control] [stream bytes]. Control bit 0 feeds aligned
// packets (push_packet, 188 bytes each) instead of raw bytes (push_raw),
// bits 1-3 pick the raw run size as for the parser, bit 4 gives the
// transport rate instead of measuring it from the PCRs.
std::string fuzzAnalyzer(const uint8_t* data, size_t size);

// VQDescriptorList::read: [tag space (bit 0)] [descriptor loop].
std::string fuzzDescriptors(const uint8_t* data, size_t size);

// Table reads: [control] [section]. Control bit 0 sets section_length to
// the section's size, bit 1 writes a valid CRC-32 into its last 4 bytes.
std::string fuzzPAT(const uint8_t* data, size_t size);
std::string fuzzPMT(const uint8_t* data, size_t size);
std::string fuzzCAT(const uint8_t* data, size_t size);
std::string fuzzTSDT(const uint8_t* data, size_t size);
std::string fuzzTDT(const uint8_t* data, size_t size);
std::string fuzzTOT(const uint8_t* data, size_t size);
std::string fuzzNIT(const uint8_t* data, size_t size);
std::string fuzzSDT(const uint8_t* data, size_t size);
std::string fuzzBAT(const uint8_t* data, size_t size);
std::string fuzzEIT(const uint8_t* data, size_t size);

// Read, render, read again: [table selector] [control] [section], the
// selector picking PAT, PMT, CAT, TSDT, TDT, TOT, NIT, SDT, BAT or EIT in
// that order (modulo 10), the control as for the table reads.
std::string fuzzRoundTrip(const uint8_t* data, size_t size);

// DvbText::to_utf8: the whole input is one SI text, character table
// selector first. The result must be valid UTF-8 without control characters
// other than the line break.
std::string fuzzText(const uint8_t* data, size_t size);

}  // namespace vq_fuzz
