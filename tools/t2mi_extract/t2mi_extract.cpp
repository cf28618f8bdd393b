// t2mi-extract: writes the transport stream of one PLP carried in a T2-MI
// stream (a transport stream whose PMT has one stream of type 0x06) to a
// file; without --plp it lists the PLPs found and extracts the only one.

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mpegcore/T2MIToTS.h"

namespace {

const char kUsage[] =
    "Usage: t2mi-extract [--plp N] IN [OUT]\n"
    "Writes the transport stream of PLP N, decapsulated from the T2-MI stream in\n"
    "the transport stream file IN, to OUT (188-byte packets). Without --plp the\n"
    "PLPs found in IN are listed; when there is exactly one it is extracted.\n"
    "\n"
    "  -p, --plp N  the PLP to extract (0 to 255)\n"
    "  -h, --help   this text\n"
    "      --version  the version of t2mi-extract\n";

constexpr size_t kReadSize = 188 * 1024;

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

// Counts the baseband frames of every PLP. Before each T2-MI packet is
// checked, the decapsulator is pointed at the PLP named in its baseband
// frame header, so only frames that pass every check are counted.
class plp_scanner : public mpegcore::CT2MIToTS {
public:
    plp_scanner() : CT2MIToTS(true) {}

    const std::map<unsigned, unsigned long>& frames_per_plp() const { return m_frames; }

protected:
    using CT2MIToTS::OnPES;
    void OnPES(unsigned short pmtPid, const mpegcore::CBaseStreamTypeMap* stream,
               mpegcore::transport_packet* packet) override {
        // A unit start completes the collected T2-MI packet: 6 header bytes,
        // then frame_idx and plp_id when it is a baseband frame (type 0x00).
        const unsigned char* collected = m_pT2MIData.get();
        if (packet->payload_unit_start_indicator && m_bT2MIDataValid && m_T2MIDataLen >= 8 && collected[0] == 0x00)
            SetPLPID(collected[7]);
        CT2MIToTS::OnPES(pmtPid, stream, packet);
    }
    void OnBBFrame(mpegcore::T2MIBBFrame* frame) override { ++m_frames[frame->plp_id]; }

private:
    std::map<unsigned, unsigned long> m_frames;
};

// Writes the rebuilt packets of one PLP with their sync byte.
class plp_writer : public mpegcore::CT2MIToTS {
public:
    plp_writer(unsigned char plp, FILE* output) : CT2MIToTS(true), m_output(output) { SetPLPID(plp); }

    unsigned long packets() const { return m_nPackets; }
    bool failed() const { return m_bFailed; }

protected:
    void OnTS(unsigned char, unsigned char* data, unsigned long size) override {
        static const unsigned char kSync = 0x47;
        if (m_bFailed || size != user_packet_size)
            return;
        m_bFailed = std::fwrite(&kSync, 1, 1, m_output) != 1 || std::fwrite(data, 1, size, m_output) != size;
        if (!m_bFailed)
            ++m_nPackets;
    }

private:
    FILE* m_output;
    unsigned long m_nPackets = 0;
    bool m_bFailed = false;
};

std::string plp_list(const std::map<unsigned, unsigned long>& frames) {
    std::string out;
    for (const auto& plp : frames)
        out += (out.empty() ? "" : ", ") + std::to_string(plp.first) + " (" + std::to_string(plp.second) +
               " baseband frames)";
    return out.empty() ? "none" : out;
}

int extract(const std::string& in, const std::string& out, unsigned plp) {
    file_ptr output(std::fopen(out.c_str(), "wb"));
    if (!output) {
        std::fprintf(stderr, "t2mi-extract: cannot create %s: %s\n", out.c_str(), std::strerror(errno));
        return 1;
    }
    auto writer = std::make_unique<plp_writer>(static_cast<unsigned char>(plp), output.get());
    if (!feed_file(in, *writer))
        return 1;
    if (writer->failed() || std::fflush(output.get()) != 0) {
        std::fprintf(stderr, "t2mi-extract: cannot write %s: %s\n", out.c_str(), std::strerror(errno));
        return 1;
    }
    std::fprintf(stderr, "t2mi-extract: PLP %u: %lu packets written to %s\n", plp, writer->packets(), out.c_str());
    if (writer->packets() == 0) {
        auto scanner = std::make_unique<plp_scanner>();
        if (feed_file(in, *scanner))
            std::fprintf(stderr, "t2mi-extract: PLPs in %s: %s\n", in.c_str(),
                         plp_list(scanner->frames_per_plp()).c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    long plp = -1;
    static const option kOptions[] = {
        {"plp", required_argument, nullptr, 'p'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    for (int c; (c = getopt_long(argc, argv, "p:h", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 'p': {
            char* end = nullptr;
            plp = std::strtol(optarg, &end, 0);
            if (*optarg == '\0' || *end != '\0' || plp < 0 || plp > 255) {
                std::fprintf(stderr, "t2mi-extract: --plp takes a number from 0 to 255, not \"%s\"\n", optarg);
                return 2;
            }
            break;
        }
        case 'h': std::fputs(kUsage, stdout); return 0;
        case 'V': std::printf("t2mi-extract %s\n", VQ_GRAPH_VERSION); return 0;
        default: std::fputs(kUsage, stderr); return 2;
        }
    }
    const int operands = argc - optind;
    if (operands < 1 || operands > 2 || (plp >= 0 && operands != 2)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const std::string in = argv[optind];
    const std::string out = operands == 2 ? argv[optind + 1] : std::string();
    if (plp >= 0)
        return extract(in, out, static_cast<unsigned>(plp));

    auto scanner = std::make_unique<plp_scanner>();
    if (!feed_file(in, *scanner))
        return 1;
    const auto& frames = scanner->frames_per_plp();
    std::printf("PLPs in %s: %s\n", in.c_str(), plp_list(frames).c_str());
    if (out.empty())
        return frames.empty() ? 1 : 0;
    if (frames.size() != 1) {
        std::fprintf(stderr, "t2mi-extract: %s; choose one with --plp\n",
                     frames.empty() ? "no PLP found" : "several PLPs found");
        return 1;
    }
    return extract(in, out, frames.begin()->first);
}
