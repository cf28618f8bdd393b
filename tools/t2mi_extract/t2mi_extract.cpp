// t2mi-extract: writes the transport stream of one PLP, or of every PLP,
// carried in a T2-MI stream (a transport stream whose PMT has one stream of
// type 0x06, or whose T2-MI PID is given) to files; without --plp it lists
// the PLPs found and extracts the only one.

#include <getopt.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "data_output.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/T2MIToTS.h"

namespace {

const char kUsage[] =
    "Usage: t2mi-extract [--pid PID] [--plp N|all] IN [OUT]\n"
    "Writes the transport stream of PLP N, decapsulated from the T2-MI stream in\n"
    "the transport stream file IN, to OUT (188-byte packets). Without --plp the\n"
    "PLPs found in IN are listed; when there is exactly one it is extracted.\n"
    "The T2-MI stream is found through the PAT and PMT unless --pid names it.\n"
    "\n"
    "  -p, --plp N    the PLP to extract (0 to 255), or \"all\": every PLP, each to\n"
    "                 its own file, OUT being a name with one %d for the PLP\n"
    "                 (such as plp%d.ts)\n"
    "  -P, --pid PID  the PID of the T2-MI stream, for carriers that do not\n"
    "                 signal it in their PSI (0 to 8190)\n"
    "  -h, --help     this text\n"
    "      --version  the version of t2mi-extract\n";

constexpr size_t kReadSize = mpegcore::kTsPacketSize * 1024;

struct file_closer {
    void operator()(FILE* file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// Feeds a whole file to a decapsulator; false (with a message) on a read error.
bool feed_file(const std::string& path, mpegcore::CT2MIToTS& decapsulator) {
    file_ptr input(std::fopen(path.c_str(), "rb"));
    if (!input) {
        std::fprintf(stderr, "t2mi-extract: cannot open %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    std::vector<unsigned char> buffer(kReadSize);
    for (size_t got; (got = std::fread(buffer.data(), 1, buffer.size(), input.get())) > 0;)
        decapsulator.Process(buffer.data(), got);
    if (std::ferror(input.get())) {
        std::fprintf(stderr, "t2mi-extract: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

// A decapsulator that finds the T2-MI PID through the PMT, or is given it.
// With a given PID the packets of that PID are taken whether a PMT lists
// them or not, and PMTs are ignored.
class t2mi_reader : public mpegcore::CT2MIToTS {
public:
    explicit t2mi_reader(int pid) : CT2MIToTS(true), m_nGivenPid(pid) {
        if (pid >= 0) {
            m_wT2MIPID = static_cast<uint16_t>(pid);
            m_bIsValid = 1;
        }
    }

protected:
    // Every packet of the T2-MI PID passes here on its way to the decapsulator.
    virtual void take_packet(mpegcore::transport_packet* packet) { CT2MIToTS::OnPES(0, nullptr, packet); }

    // The plp_id of the T2-MI packet that this unit start completes (the
    // collected bytes and those before the pointed-at start), -1 when it is
    // no baseband frame. Pointing the decapsulator at it before the packet is
    // checked rebuilds every PLP in turn.
    int completed_frame_plp(const mpegcore::transport_packet& packet) const {
        if (!packet.payload_unit_start_indicator || !packet.hasPayload() || packet.lCurrSizePkt < 1 ||
            !m_bT2MIDataValid || packet.PID != m_wT2MIPID)
            return -1;
        const unsigned char* payload = packet.pCurrDataPkt;
        const size_t pointer = std::min<size_t>(payload[0], static_cast<size_t>(packet.lCurrSizePkt) - 1);
        // Byte i of the collected packet followed by the bytes before the pointed-at start.
        auto byte = [&](size_t i) -> int {
            if (i < m_T2MIDataLen)
                return m_pT2MIData[i];
            i -= m_T2MIDataLen;
            return i < pointer ? payload[1 + i] : -1;
        };
        // 6 header bytes, then frame_idx and plp_id when it is a baseband frame (type 0x00).
        return byte(0) == 0x00 ? byte(7) : -1;
    }

    using CT2MIToTS::OnPES;
    void OnPES(unsigned short, const mpegcore::CBaseStreamTypeMap*, mpegcore::transport_packet* packet) override {
        if (m_nGivenPid < 0)
            take_packet(packet);
    }
    void onOtherPid(mpegcore::transport_packet* packet) override {
        if (m_nGivenPid >= 0 && packet->PID == m_nGivenPid)
            take_packet(packet);
    }
    void OnPMT(mpegcore::CBaseMpegProgram* program, mpegcore::CPMT* pmt) override {
        if (m_nGivenPid < 0)
            CT2MIToTS::OnPMT(program, pmt);
    }

private:
    int m_nGivenPid;
};

// Counts the baseband frames of every PLP; only frames that pass every
// check are counted.
class plp_scanner : public t2mi_reader {
public:
    explicit plp_scanner(int pid) : t2mi_reader(pid) {}

    const std::map<unsigned, unsigned long>& frames_per_plp() const { return m_frames; }

protected:
    void take_packet(mpegcore::transport_packet* packet) override {
        const int plp = completed_frame_plp(*packet);
        if (plp >= 0)
            SetPLPID(static_cast<unsigned char>(plp));
        t2mi_reader::take_packet(packet);
    }
    void OnBBFrame(mpegcore::T2MIBBFrame* frame) override { ++m_frames[frame->plp_id]; }

private:
    std::map<unsigned, unsigned long> m_frames;
};

// Writes the rebuilt packets, with their sync byte, of one PLP or of every
// PLP; each PLP's file is created with its first packet.
class plp_writer : public t2mi_reader {
public:
    // plp -1: every PLP, to the files the pattern names.
    plp_writer(int pid, int plp, std::string pattern) : t2mi_reader(pid), m_nPLP(plp), m_pattern(std::move(pattern)) {
        if (plp >= 0)
            SetPLPID(static_cast<unsigned char>(plp));
    }

    struct output {
        std::string path;
        file_ptr file;
        unsigned long packets = 0;
    };
    const std::map<unsigned, output>& outputs() const { return m_outputs; }
    // The first error, empty when none.
    const std::string& error() const { return m_error; }

    // Creates the file of a PLP ahead of its first packet; false (with error() set) when it cannot.
    bool open(unsigned plp) { return output_of(plp) != nullptr; }
    unsigned long packets() const {
        unsigned long total = 0;
        for (const auto& out : m_outputs)
            total += out.second.packets;
        return total;
    }

    // Flushes every file; false (with error() set) when one cannot be written.
    bool finish() {
        for (auto& out : m_outputs)
            if (m_error.empty() && std::fflush(out.second.file.get()) != 0)
                m_error = "cannot write " + out.second.path + ": " + std::strerror(errno);
        return m_error.empty();
    }

protected:
    void take_packet(mpegcore::transport_packet* packet) override {
        const int plp = m_nPLP < 0 ? completed_frame_plp(*packet) : -1;
        if (plp >= 0)
            SetPLPID(static_cast<unsigned char>(plp));
        t2mi_reader::take_packet(packet);
    }
    void OnTS(unsigned char plp, unsigned char* data, unsigned long size) override {
        if (!m_error.empty() || size != user_packet_size)
            return;
        output* out = output_of(plp);
        if (!out)
            return;
        if (std::fwrite(&mpegcore::kSyncByte, 1, 1, out->file.get()) != 1 ||
            std::fwrite(data, 1, size, out->file.get()) != size) {
            m_error = "cannot write " + out->path + ": " + std::strerror(errno);
            return;
        }
        ++out->packets;
    }

private:
    output* output_of(unsigned plp) {
        auto found = m_outputs.find(plp);
        if (found != m_outputs.end())
            return &found->second;
        output out;
        out.path = m_pattern;
        if (m_nPLP < 0) {
            char path[4096];
            std::snprintf(path, sizeof path, m_pattern.c_str(), static_cast<int>(plp));
            out.path = path;
        }
        out.file.reset(std::fopen(out.path.c_str(), "wb"));
        if (!out.file) {
            m_error = "cannot create " + out.path + ": " + std::strerror(errno);
            return nullptr;
        }
        return &m_outputs.emplace(plp, std::move(out)).first->second;
    }

    int m_nPLP;
    std::string m_pattern;
    std::map<unsigned, output> m_outputs;
    std::string m_error;
};

std::string plp_list(const std::map<unsigned, unsigned long>& frames) {
    std::string out;
    for (const auto& plp : frames)
        out += (out.empty() ? "" : ", ") + std::to_string(plp.first) + " (" + std::to_string(plp.second) +
               " baseband frames)";
    return out.empty() ? "none" : out;
}

// Whether a --plp all pattern holds exactly one %d (a width such as %03d
// allowed) and no other conversion; "%%" stands for a percent sign.
bool valid_plp_pattern(const std::string& pattern) {
    unsigned conversions = 0;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%')
            continue;
        if (++i < pattern.size() && pattern[i] == '%')
            continue;
        while (i < pattern.size() && std::isdigit(static_cast<unsigned char>(pattern[i])))
            ++i;
        if (i >= pattern.size() || pattern[i] != 'd')
            return false;
        ++conversions;
    }
    return conversions == 1;
}

// Extracts PLP plp (-1: every PLP) from in to the file out (a pattern for every PLP).
int extract(const std::string& in, const std::string& out, int plp, int pid) {
    auto writer = std::make_unique<plp_writer>(pid, plp, out);
    if (plp >= 0 && !writer->open(static_cast<unsigned>(plp))) {
        std::fprintf(stderr, "t2mi-extract: %s\n", writer->error().c_str());
        return 1;
    }
    if (!feed_file(in, *writer))
        return 1;
    const bool written = writer->finish();
    for (const auto& output : writer->outputs())
        std::fprintf(stderr, "t2mi-extract: PLP %u: %lu packets written to %s\n", output.first, output.second.packets,
                     output.second.path.c_str());
    if (!written) {
        std::fprintf(stderr, "t2mi-extract: %s\n", writer->error().c_str());
        return 1;
    }
    if (writer->packets() == 0) {
        auto scanner = std::make_unique<plp_scanner>(pid);
        if (feed_file(in, *scanner))
            std::fprintf(stderr, "t2mi-extract: PLPs in %s: %s\n", in.c_str(),
                         plp_list(scanner->frames_per_plp()).c_str());
        return 1;
    }
    return 0;
}

// A number from 0 to max, or -1 (with a message) when the text is none.
long number_option(const char* name, const char* text, long max) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 0);
    if (*text == '\0' || *end != '\0' || value < 0 || value > max) {
        std::fprintf(stderr, "t2mi-extract: %s takes a number from 0 to %ld, not \"%s\"\n", name, max, text);
        return -1;
    }
    return value;
}

}  // namespace

int main(int argc, char** argv) {
    long plp = -1;
    bool allPlps = false;
    long pid = -1;
    static const option kOptions[] = {
        {"plp", required_argument, nullptr, 'p'},
        {"pid", required_argument, nullptr, 'P'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    for (int c; (c = getopt_long(argc, argv, "p:P:h", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 'p':
            allPlps = std::strcmp(optarg, "all") == 0;
            if (!allPlps && (plp = number_option("--plp", optarg, 255)) < 0)
                return 2;
            break;
        case 'P':
            if ((pid = number_option("--pid", optarg, 8190)) < 0)
                return 2;
            break;
        case 'h': std::fputs(kUsage, stdout); return 0;
        case 'V': std::printf("t2mi-extract %s\n", VQ_GRAPH_VERSION); return 0;
        default: std::fputs(kUsage, stderr); return 2;
        }
    }
    const int operands = argc - optind;
    if (operands < 1 || operands > 2 || ((plp >= 0 || allPlps) && operands != 2)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const std::string in = argv[optind];
    const std::string out = operands == 2 ? argv[optind + 1] : std::string();
    if (allPlps && !valid_plp_pattern(out)) {
        std::fprintf(stderr,
                     "t2mi-extract: with --plp all, OUT names the file of each PLP with exactly one %%d "
                     "(such as plp%%d.ts), not \"%s\"\n",
                     out.c_str());
        return 2;
    }
    data_output data;  // library messages go to standard error, not among the listing
    if (plp >= 0 || allPlps)
        return extract(in, out, allPlps ? -1 : static_cast<int>(plp), static_cast<int>(pid));

    auto scanner = std::make_unique<plp_scanner>(static_cast<int>(pid));
    if (!feed_file(in, *scanner))
        return 1;
    const auto& frames = scanner->frames_per_plp();
    std::fprintf(data.file(), "PLPs in %s: %s\n", in.c_str(), plp_list(frames).c_str());
    if (out.empty())
        return frames.empty() ? 1 : 0;
    if (frames.size() != 1) {
        std::fprintf(stderr, "t2mi-extract: %s; choose one with --plp\n",
                     frames.empty() ? "no PLP found" : "several PLPs found");
        return 1;
    }
    return extract(in, out, static_cast<int>(frames.begin()->first), static_cast<int>(pid));
}
