// ts-tables: prints the PSI/SI tables of a transport stream (PAT, PMT, CAT,
// TSDT, NIT, SDT, BAT, EIT, TDT, TOT) with their fields and descriptors, each
// table once per version, as text or as one JSON object per line.

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "data_output.h"
#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/SectionAssembler.h"
#include "report_node.h"
#include "table_report.h"

namespace {

const char kUsage[] =
    "Usage: ts-tables [--json] [FILE]\n"
    "Prints every PSI/SI table of the MPEG-2 transport stream FILE (standard input\n"
    "when FILE is missing or \"-\"): PAT, PMT, CAT, TSDT, NIT, SDT, BAT, EIT, TDT\n"
    "and TOT, each once per version, with fields, descriptors and decoded names.\n"
    "\n"
    "  -j, --json   one JSON object per table and line instead of text\n"
    "  -h, --help   this text\n"
    "      --version  the version of ts-tables\n";

using namespace mpegcore;

// The parser finds the packets; every section, wherever it starts in a
// packet, comes from the section assembler, and each table is printed when
// its version is new.
class table_printer : public CBaseMpegParser {
public:
    table_printer(bool json, std::ostream& out)
        : CBaseMpegParser(true),
          m_sections(
              [this](uint16_t pid, const unsigned char* section, size_t size) { onSection(pid, section, size); }),
          m_bJson(json),
          m_out(out) {}

    unsigned long tables_printed() const { return m_nPrinted; }

    int OnProcess(unsigned int, transport_packet& packet) override {
        const uint16_t pid = packet.PID;
        if (pid <= kPidTSDT || (pid >= kPidNIT && pid <= kPidTDT) || m_pmtPids.count(pid))
            m_sections.push_packet(packet);
        return 0;
    }

private:
    // Reads the section into a fresh table of type T and prints it.
    template <class T, class Print>
    void readAndPrint(const unsigned char* section, size_t size, unsigned long bufferSize, Print printTable) {
        T table(nullptr, bufferSize);
        VQSDK::VQBSReaderT<unsigned char*> reader(const_cast<unsigned char*>(section),
                                                  static_cast<unsigned long>(size));
        if (table.read(reader))
            printTable(table);
    }

    void onSection(uint16_t pid, const unsigned char* section, size_t size) {
        const uint8_t tableId = section[0];
        if (pid == kPidPAT && tableId == kTableIdPAT) {
            readAndPrint<CPAT>(section, size, 1024, [&](CPAT& pat) {
                for (const auto& entry : pat.program_map)
                    if (entry.second.program_number != 0)
                        m_pmtPids.insert(entry.first);
                print(key("PAT", pat.transport_stream_id, pat.section_number), pat.version_number,
                      [&] { return describe_pat(pat); });
            });
        } else if (pid == kPidCAT && tableId == kTableIdCAT) {
            readAndPrint<CCAT>(section, size, 1024, [&](CCAT& cat) {
                print(key("CAT", cat.section_number), cat.version_number, [&] { return describe_cat(cat); });
            });
        } else if (pid == kPidTSDT && tableId == kTableIdTSDT) {
            readAndPrint<CTSDT>(section, size, 1024, [&](CTSDT& tsdt) {
                print(key("TSDT", tsdt.section_number), tsdt.version_number, [&] { return describe_tsdt(tsdt); });
            });
        } else if (pid == kPidNIT && (tableId == kTableIdNITActual || tableId == kTableIdNITOther)) {
            readAndPrint<CNIT>(section, size, 1024, [&](CNIT& nit) {
                print(key("NIT", nit.table_id, nit.network_id, nit.section_number), nit.version_number,
                      [&] { return describe_nit(nit); });
            });
        } else if (pid == kPidSDT && (tableId == kTableIdSDTActual || tableId == kTableIdSDTOther)) {
            readAndPrint<CSDT>(section, size, 1024, [&](CSDT& sdt) {
                print(key("SDT", sdt.table_id, sdt.transport_stream_id, sdt.original_network_id, sdt.section_number),
                      sdt.version_number, [&] { return describe_sdt(sdt); });
            });
        } else if (pid == kPidSDT && tableId == kTableIdBAT) {
            readAndPrint<CBAT>(section, size, 4096, [&](CBAT& bat) {
                print(key("BAT", bat.bouquet_id, bat.section_number), bat.version_number,
                      [&] { return describe_bat(bat); });
            });
        } else if (pid == kPidEIT && tableId >= kTableIdEITActual && tableId <= kTableIdEITOtherScheduleLast) {
            readAndPrint<CEIT>(section, size, 4096, [&](CEIT& eit) {
                print(key("EIT", eit.table_id, eit.service_id, eit.transport_stream_id, eit.original_network_id,
                          eit.section_number),
                      eit.version_number, [&] { return describe_eit(eit); });
            });
        } else if (pid == kPidTDT && tableId == kTableIdTDT) {
            // The time tables have no version: a new time is a new table.
            readAndPrint<CTDT>(section, size, 1024,
                               [&](CTDT& tdt) { print("TDT", tdt.UTC_time, [&] { return describe_tdt(tdt); }); });
        } else if (pid == kPidTDT && tableId == kTableIdTOT) {
            readAndPrint<CTOT>(section, size, 1024,
                               [&](CTOT& tot) { print("TOT", tot.UTC_time, [&] { return describe_tot(tot); }); });
        } else if (tableId == kTableIdPMT && m_pmtPids.count(pid)) {
            readAndPrint<CPMT>(section, size, 1024, [&](CPMT& pmt) {
                print(key("PMT", pid, pmt.program_number, pmt.section_number), pmt.version_number,
                      [&] { return describe_pmt(pid, pmt); });
            });
        }
    }

    template <class... Fields>
    static std::string key(const char* name, Fields... fields) {
        std::string out = name;
        for (const unsigned long field : {static_cast<unsigned long>(fields)...})
            out += '/' + std::to_string(field);
        return out;
    }

    template <class Describe>
    void print(const std::string& identity, uint64_t version, Describe describe) {
        const auto found = m_versions.find(identity);
        if (found != m_versions.end() && found->second == version)
            return;
        m_versions[identity] = version;
        ++m_nPrinted;
        const report_node table = describe();
        if (m_bJson) {
            // Bytes of a damaged stream that are not UTF-8 become U+FFFD.
            m_out << table.to_json().dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
        } else {
            m_out << "---\n";
            table.to_text(m_out);
        }
    }

    CSectionAssembler m_sections;
    std::set<uint16_t> m_pmtPids;
    bool m_bJson;
    std::ostream& m_out;
    std::map<std::string, uint64_t> m_versions;
    unsigned long m_nPrinted = 0;
};

struct file_closer {
    void operator()(FILE* file) const {
        if (file != stdin)
            std::fclose(file);
    }
};

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    static const option kOptions[] = {
        {"json", no_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    for (int c; (c = getopt_long(argc, argv, "jh", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 'j': json = true; break;
        case 'h': std::fputs(kUsage, stdout); return 0;
        case 'V': std::printf("ts-tables %s\n", VQ_GRAPH_VERSION); return 0;
        default: std::fputs(kUsage, stderr); return 2;
        }
    }
    if (argc - optind > 1) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const std::string path = optind < argc ? argv[optind] : "-";
    std::unique_ptr<FILE, file_closer> input(path == "-" ? stdin : std::fopen(path.c_str(), "rb"));
    if (!input) {
        std::fprintf(stderr, "ts-tables: cannot open %s: %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }

    data_output data;  // library messages go to standard error, not among the tables
    table_printer printer(json, data.stream());
    std::vector<unsigned char> buffer(kTsPacketSize * 1024);
    for (size_t got; (got = std::fread(buffer.data(), 1, buffer.size(), input.get())) > 0;)
        printer.Process(buffer.data(), got);
    if (std::ferror(input.get())) {
        std::fprintf(stderr, "ts-tables: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }
    data.stream().flush();
    if (!json)
        std::fprintf(stderr, "ts-tables: %lu tables\n", printer.tables_printed());
    return 0;
}
