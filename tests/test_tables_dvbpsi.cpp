// The table classes against libdvbpsi: sections that libdvbpsi generates are
// read by our classes, and sections our classes render are decoded by
// libdvbpsi's decoders, fed as transport stream packets.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/bat.h>
#include <dvbpsi/cat.h>
#include <dvbpsi/eit.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/sdt.h>
#include <dvbpsi/tot.h>

#include "mpegcore/BAT.h"
#include "mpegcore/CAT.h"
#include "mpegcore/EIT.h"
#include "mpegcore/NIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "support/descriptor_bytes.h"
#include "support/section_bytes.h"

using vq_test::readTable;
using vq_test::renderedBytes;
using vq_test::SectionBytes;

namespace {

using Handle = std::unique_ptr<dvbpsi_t, void (*)(dvbpsi_t*)>;

Handle newHandle() { return Handle(dvbpsi_new(nullptr, DVBPSI_MSG_NONE), dvbpsi_delete); }

// The first section of a generated chain as bytes; frees the chain.
SectionBytes takeFirstSection(dvbpsi_psi_section_t* sections) {
    EXPECT_NE(sections, nullptr);
    if (!sections)
        return {};
    SectionBytes bytes(sections->p_data, sections->p_data + sections->i_length + 3);
    EXPECT_EQ(sections->p_next, nullptr) << "more than one section generated";
    dvbpsi_DeletePSISections(sections);
    return bytes;
}

// Pushes a section as TS packets (pointer field 0, stuffing 0xFF) on pid,
// `times` times in a row as a stream repeats it.
void pushSection(dvbpsi_t* handle, const SectionBytes& section, uint16_t pid, int times = 1) {
    uint8_t cc = 0;
    for (int round = 0; round < times; ++round) {
        size_t done = 0;
        bool first = true;
        while (done < section.size()) {
            uint8_t packet[188];
            std::fill(packet, packet + 188, 0xFF);
            packet[0] = 0x47;
            packet[1] = uint8_t((first ? 0x40 : 0x00) | (pid >> 8));
            packet[2] = uint8_t(pid);
            packet[3] = uint8_t(0x10 | (cc++ & 0x0F));
            size_t at = 4;
            if (first)
                packet[at++] = 0x00;
            const size_t take = std::min(section.size() - done, size_t(188) - at);
            std::copy(section.begin() + done, section.begin() + done + take, packet + at);
            done += take;
            first = false;
            ASSERT_TRUE(dvbpsi_packet_push(handle, packet));
        }
    }
}

SectionBytes descriptorBytes(const dvbpsi_descriptor_t* first) {
    SectionBytes bytes;
    for (const dvbpsi_descriptor_t* d = first; d; d = d->p_next) {
        bytes.push_back(d->i_tag);
        bytes.push_back(d->i_length);
        bytes.insert(bytes.end(), d->p_data, d->p_data + d->i_length);
    }
    return bytes;
}

// Raw descriptor (tag, payload) for the libdvbpsi builders.
struct Raw {
    uint8_t tag;
    SectionBytes payload;
};

SectionBytes rawBytes(const std::vector<Raw>& raws) {
    SectionBytes bytes;
    for (const auto& raw : raws) {
        bytes.push_back(raw.tag);
        bytes.push_back(uint8_t(raw.payload.size()));
        bytes.insert(bytes.end(), raw.payload.begin(), raw.payload.end());
    }
    return bytes;
}

const std::vector<Raw> kNetworkDescriptors{{0x40, {'V', 'Q', ' ', 'N', 'e', 't'}}, {0x80, {1, 2, 3}}};
const std::vector<Raw> kStreamDescriptors{{0x41, {0x00, 0x01, 0x01, 0x00, 0x02, 0x19}}};
const std::vector<Raw> kServiceDescriptors{{0x48, {0x01, 0x02, 'P', 'r', 0x04, 'N', 'a', 'm', 'e'}}};
const std::vector<Raw> kEventDescriptors{{0x4D, {'e', 'n', 'g', 0x04, 'N', 'e', 'w', 's', 0x00}}, {0x54, {0x12, 0x34}}};
const std::vector<Raw> kCaDescriptors{{0x09, {0x0B, 0x00, 0xE1, 0x23}}, {0x09, {0x18, 0x02, 0xE4, 0x56, 0x77}}};

// Demux-based decoders (SDT, NIT, EIT, TOT, BAT) attach from this callback.
struct DemuxAttach {
    std::function<void(dvbpsi_t*, uint8_t, uint16_t)> attach;
};

void onNewSubtable(dvbpsi_t* handle, uint8_t tableId, uint16_t extension, void* data) {
    static_cast<DemuxAttach*>(data)->attach(handle, tableId, extension);
}

}  // namespace

// ---- libdvbpsi generates, our classes read ----

TEST(DvbpsiGenerated, PatIsReadWithEveryField) {
    auto handle = newHandle();
    dvbpsi_pat_t* pat = dvbpsi_pat_new(0x2345, 13, true);
    dvbpsi_pat_program_add(pat, 0, 0x10);
    for (uint16_t i = 1; i <= 30; ++i)
        dvbpsi_pat_program_add(pat, i, uint16_t(0x100 + i * 3));
    const SectionBytes bytes = takeFirstSection(dvbpsi_pat_sections_generate(handle.get(), pat, 253));
    mpegcore::CPAT ours(nullptr, 1024);
    ASSERT_TRUE(readTable(ours, bytes));
    EXPECT_EQ(ours.table_id, 0x00);
    EXPECT_EQ(ours.transport_stream_id, 0x2345);
    EXPECT_EQ(ours.version_number, 13);
    EXPECT_EQ(ours.current_next_indicator, 1);
    EXPECT_EQ(ours.section_number, 0);
    EXPECT_EQ(ours.last_section_number, 0);
    ASSERT_EQ(ours.program_map.size(), 31u);
    for (const dvbpsi_pat_program_t* p = pat->p_first_program; p; p = p->p_next) {
        ASSERT_EQ(ours.program_map.count(p->i_pid), 1u);
        EXPECT_EQ(ours.program_map.at(p->i_pid).program_number, p->i_number);
    }
    dvbpsi_pat_delete(pat);
}

TEST(DvbpsiGenerated, PmtIsReadWithEveryField) {
    auto handle = newHandle();
    dvbpsi_pmt_t* pmt = dvbpsi_pmt_new(0x0102, 7, true, 0x1FF);
    uint8_t registration[] = {'H', 'E', 'V', 'C'};
    dvbpsi_pmt_descriptor_add(pmt, 0x05, 4, registration);
    dvbpsi_pmt_es_t* video = dvbpsi_pmt_es_add(pmt, 0x24, 0x200);
    uint8_t language[] = {'d', 'e', 'u', 0x00};
    dvbpsi_pmt_es_t* audio = dvbpsi_pmt_es_add(pmt, 0x03, 0x201);
    dvbpsi_pmt_es_descriptor_add(audio, 0x0A, 4, language);
    uint8_t unknown[] = {9, 8, 7};
    dvbpsi_pmt_es_descriptor_add(audio, 0x80, 3, unknown);
    dvbpsi_pmt_es_add(pmt, 0x06, 0x1FFE);
    (void)video;
    const SectionBytes bytes = takeFirstSection(dvbpsi_pmt_sections_generate(handle.get(), pmt));
    mpegcore::CPMT ours(nullptr, 1024);
    ASSERT_TRUE(readTable(ours, bytes));
    EXPECT_EQ(ours.program_number, 0x0102);
    EXPECT_EQ(ours.version_number, 7);
    EXPECT_EQ(ours.current_next_indicator, 1);
    EXPECT_EQ(ours.PCR_PID, 0x1FF);
    EXPECT_EQ(ours.program_info_length, 6);
    EXPECT_EQ(vq_test::writeLoop(ours.descriptors), descriptorBytes(pmt->p_first_descriptor));
    ASSERT_EQ(ours.stream_map.size(), 3u);
    for (const dvbpsi_pmt_es_t* es = pmt->p_first_es; es; es = es->p_next) {
        ASSERT_EQ(ours.stream_map.count(es->i_pid), 1u);
        const auto& stream = ours.stream_map.at(es->i_pid);
        EXPECT_EQ(stream->stream_type, es->i_type);
        EXPECT_EQ(vq_test::writeLoop(stream->descriptors), descriptorBytes(es->p_first_descriptor));
        EXPECT_EQ(stream->ES_info_length, descriptorBytes(es->p_first_descriptor).size());
    }
    dvbpsi_pmt_delete(pmt);
}

TEST(DvbpsiGenerated, CatIsReadWithEveryField) {
    auto handle = newHandle();
    dvbpsi_cat_t* cat = dvbpsi_cat_new(5, true);
    for (const auto& raw : kCaDescriptors)
        dvbpsi_cat_descriptor_add(cat, raw.tag, uint8_t(raw.payload.size()), const_cast<uint8_t*>(raw.payload.data()));
    const SectionBytes bytes = takeFirstSection(dvbpsi_cat_sections_generate(handle.get(), cat));
    mpegcore::CCAT ours(nullptr, 1024);
    ASSERT_TRUE(readTable(ours, bytes));
    EXPECT_EQ(ours.table_id, 0x01);
    EXPECT_EQ(ours.version_number, 5);
    EXPECT_EQ(ours.current_next_indicator, 1);
    EXPECT_EQ(vq_test::writeLoop(ours.descriptors), rawBytes(kCaDescriptors));
    dvbpsi_cat_delete(cat);
}

TEST(DvbpsiGenerated, SdtIsReadWithEveryField) {
    auto handle = newHandle();
    dvbpsi_sdt_t* sdt = dvbpsi_sdt_new(0x42, 0x0304, 9, true, 0x0506);
    dvbpsi_sdt_service_t* one = dvbpsi_sdt_service_add(sdt, 0x20, true, false, 4, false);
    for (const auto& raw : kServiceDescriptors)
        dvbpsi_sdt_service_descriptor_add(one, raw.tag, uint8_t(raw.payload.size()),
                                          const_cast<uint8_t*>(raw.payload.data()));
    dvbpsi_sdt_service_add(sdt, 0x10, false, true, 1, true);
    const SectionBytes bytes = takeFirstSection(dvbpsi_sdt_sections_generate(handle.get(), sdt));
    mpegcore::CSDT ours(nullptr, 1024);
    ASSERT_TRUE(readTable(ours, bytes));
    EXPECT_EQ(ours.table_id, 0x42);
    EXPECT_EQ(ours.transport_stream_id, 0x0304);
    EXPECT_EQ(ours.version_number, 9);
    EXPECT_EQ(ours.original_network_id, 0x0506);
    ASSERT_EQ(ours.sds.size(), 2u);
    for (const dvbpsi_sdt_service_t* s = sdt->p_first_service; s; s = s->p_next) {
        const auto& service = ours.sds.at(s->i_service_id);
        EXPECT_EQ(service->EIT_schedule_flag, s->b_eit_schedule);
        EXPECT_EQ(service->EIT_present_following_flag, s->b_eit_present);
        EXPECT_EQ(service->running_status, s->i_running_status);
        EXPECT_EQ(service->free_CA_mode, s->b_free_ca);
        EXPECT_EQ(vq_test::writeLoop(service->descriptors), descriptorBytes(s->p_first_descriptor));
        EXPECT_EQ(service->descriptors_loop_length, descriptorBytes(s->p_first_descriptor).size());
    }
    dvbpsi_sdt_delete(sdt);
}

TEST(DvbpsiGenerated, NitIsReadWithEveryField) {
    auto handle = newHandle();
    dvbpsi_nit_t* nit = dvbpsi_nit_new(0x40, 0x3001, 0x3001, 17, true);
    for (const auto& raw : kNetworkDescriptors)
        dvbpsi_nit_descriptor_add(nit, raw.tag, uint8_t(raw.payload.size()), const_cast<uint8_t*>(raw.payload.data()));
    dvbpsi_nit_ts_t* ts = dvbpsi_nit_ts_add(nit, 0x0304, 0x0506);
    for (const auto& raw : kStreamDescriptors)
        dvbpsi_nit_ts_descriptor_add(ts, raw.tag, uint8_t(raw.payload.size()),
                                     const_cast<uint8_t*>(raw.payload.data()));
    dvbpsi_nit_ts_add(nit, 0x0305, 0x0507);
    const SectionBytes bytes = takeFirstSection(dvbpsi_nit_sections_generate(handle.get(), nit, 0x40));
    mpegcore::CNIT ours(nullptr, 1024);
    ASSERT_TRUE(readTable(ours, bytes));
    EXPECT_EQ(ours.table_id, 0x40);
    EXPECT_EQ(ours.network_id, 0x3001);
    EXPECT_EQ(ours.version_number, 17);
    EXPECT_EQ(ours.current_next_indicator, 1);
    EXPECT_EQ(vq_test::writeLoop(ours.descriptors), rawBytes(kNetworkDescriptors));
    ASSERT_EQ(ours.transport_stream.size(), 2u);
    auto it = ours.transport_stream.begin();
    for (const dvbpsi_nit_ts_t* t = nit->p_first_ts; t; t = t->p_next, ++it) {
        EXPECT_EQ((*it)->transport_stream_id, t->i_ts_id);
        EXPECT_EQ((*it)->original_network_id, t->i_orig_network_id);
        EXPECT_EQ(vq_test::writeLoop((*it)->descriptors), descriptorBytes(t->p_first_descriptor));
    }
    dvbpsi_nit_delete(nit);
}

TEST(DvbpsiGenerated, EitIsReadWithEveryField) {
    auto handle = newHandle();
    dvbpsi_eit_t* eit = dvbpsi_eit_new(0x4E, 0x0102, 3, true, 0x0304, 0x0506, 0, 0x4E);
    const uint64_t start = mpegcore::CEventInfo::time_t_to_start_time(1794771602);  // 2026-11-15 19:40:02
    dvbpsi_eit_event_t* first = dvbpsi_eit_event_add(eit, 0x1001, start, 0x013000, 4, false, 0);
    for (const auto& raw : kEventDescriptors)
        dvbpsi_eit_event_descriptor_add(first, raw.tag, uint8_t(raw.payload.size()),
                                        const_cast<uint8_t*>(raw.payload.data()));
    dvbpsi_eit_event_add(eit, 0x1002, start + 0x013000, 0x000500, 1, true, 0);
    const SectionBytes bytes = takeFirstSection(dvbpsi_eit_sections_generate(handle.get(), eit, 0x4E));
    mpegcore::CEIT ours(nullptr, 4096);
    ASSERT_TRUE(readTable(ours, bytes));
    EXPECT_EQ(ours.table_id, 0x4E);
    EXPECT_EQ(ours.service_id, 0x0102);
    EXPECT_EQ(ours.version_number, 3);
    EXPECT_EQ(ours.transport_stream_id, 0x0304);
    EXPECT_EQ(ours.original_network_id, 0x0506);
    EXPECT_EQ(ours.segment_last_section_number, 0);
    EXPECT_EQ(ours.last_table_id, 0x4E);
    ASSERT_EQ(ours.eventInfo.size(), 2u);
    auto it = ours.eventInfo.begin();
    for (const dvbpsi_eit_event_t* e = eit->p_first_event; e; e = e->p_next, ++it) {
        EXPECT_EQ((*it)->event_id, e->i_event_id);
        EXPECT_EQ((*it)->start_time, e->i_start_time);
        EXPECT_EQ((*it)->duration, e->i_duration);
        EXPECT_EQ((*it)->running_status, e->i_running_status);
        EXPECT_EQ((*it)->free_CA_mode, e->b_free_ca);
        EXPECT_EQ(vq_test::writeLoop((*it)->descriptors), descriptorBytes(e->p_first_descriptor));
    }
    dvbpsi_eit_delete(eit);
}

TEST(DvbpsiGenerated, TotIsReadWithEveryField) {
    auto handle = newHandle();
    dvbpsi_tot_t* tot = dvbpsi_tot_new(0x73, 0, 0, true, 0xEFBF194002ull);
    uint8_t lto[] = {'D', 'E', 'U', 0x02, 0x01, 0x00, 0xEF, 0xBF, 0x02, 0x00, 0x00, 0x02, 0x00};
    dvbpsi_tot_descriptor_add(tot, 0x58, sizeof lto, lto);
    SectionBytes bytes = takeFirstSection(dvbpsi_tot_sections_generate(handle.get(), tot));
    // libdvbpsi 1.3.3 writes a TOT's section_length 4 short (without the
    // CRC) although the section and its CRC are complete; a reader that
    // trusts the length rejects it. Restore the length, then the CRC.
    ASSERT_GE(bytes.size(), 3u);
    bytes[1] = uint8_t((bytes[1] & 0xF0) | ((bytes.size() - 3) >> 8));
    bytes[2] = uint8_t(bytes.size() - 3);
    vq_test::fixSectionCrc(bytes);
    mpegcore::CTOT ours(nullptr, 1024);
    ASSERT_TRUE(readTable(ours, bytes));
    EXPECT_EQ(ours.table_id, 0x73);
    EXPECT_EQ(ours.UTC_time, 0xEFBF194002ull);
    EXPECT_EQ(ours.descriptors_loop_length, 15);
    EXPECT_EQ(vq_test::writeLoop(ours.descriptors), descriptorBytes(tot->p_first_descriptor));
    dvbpsi_tot_delete(tot);
}

TEST(DvbpsiGenerated, TdtIsReadWithItsTime) {
    auto handle = newHandle();
    dvbpsi_tot_t* tdt = dvbpsi_tot_new(0x70, 0, 0, true, 0xC079124500ull);
    const SectionBytes bytes = takeFirstSection(dvbpsi_tot_sections_generate(handle.get(), tdt));
    ASSERT_EQ(bytes.size(), 8u);
    mpegcore::CTDT ours(nullptr, 1024);
    ASSERT_TRUE(readTable(ours, bytes));
    EXPECT_EQ(ours.table_id, 0x70);
    EXPECT_EQ(ours.UTC_time, 0xC079124500ull);
    dvbpsi_tot_delete(tdt);
}

TEST(DvbpsiGenerated, BatStreamDescriptorsLandInTheTablesList) {
    auto handle = newHandle();
    dvbpsi_bat_t* bat = dvbpsi_bat_new(0x4A, 0x6001, 2, true);
    uint8_t name[] = {'B', 'q'};
    dvbpsi_bat_bouquet_descriptor_add(bat, 0x47, 2, name);
    dvbpsi_bat_ts_t* ts = dvbpsi_bat_ts_add(bat, 0x0304, 0x0506);
    for (const auto& raw : kStreamDescriptors)
        dvbpsi_bat_ts_descriptor_add(ts, raw.tag, uint8_t(raw.payload.size()),
                                     const_cast<uint8_t*>(raw.payload.data()));
    dvbpsi_bat_ts_add(bat, 0x0305, 0x0507);
    SectionBytes bytes = takeFirstSection(dvbpsi_bat_sections_generate(handle.get(), bat));
    // libdvbpsi 1.3.3 writes each transport_descriptors_length one too high;
    // its own decoder reads our correct lengths. Rewrite them from its table.
    size_t at = 10 + descriptorBytes(bat->p_first_descriptor).size() + 2;
    for (const dvbpsi_bat_ts_t* t = bat->p_first_ts; t; t = t->p_next) {
        ASSERT_LT(at + 6, bytes.size());
        const size_t length = descriptorBytes(t->p_first_descriptor).size();
        bytes[at + 4] = uint8_t((bytes[at + 4] & 0xF0) | (length >> 8));
        bytes[at + 5] = uint8_t(length);
        at += 6 + length;
    }
    vq_test::fixSectionCrc(bytes);
    mpegcore::CBAT ours(nullptr, 4096);
    ASSERT_TRUE(readTable(ours, bytes));
    EXPECT_EQ(ours.table_id, 0x4A);
    EXPECT_EQ(ours.bouquet_id, 0x6001);
    EXPECT_EQ(ours.version_number, 2);
    ASSERT_EQ(ours.BouquetAssociationStreamList.size(), 2u);
    auto it = ours.BouquetAssociationStreamList.begin();
    for (const dvbpsi_bat_ts_t* t = bat->p_first_ts; t; t = t->p_next, ++it) {
        EXPECT_EQ((*it)->transport_stream_id, t->i_ts_id);
        EXPECT_EQ((*it)->original_network_id, t->i_orig_network_id);
        EXPECT_EQ((*it)->transport_descriptors_length, descriptorBytes(t->p_first_descriptor).size());
        EXPECT_TRUE((*it)->descriptors.descriptor.empty());
    }
    // Bouquet descriptors, then the first stream's descriptors.
    SectionBytes expected = descriptorBytes(bat->p_first_descriptor);
    const SectionBytes streamBytes = rawBytes(kStreamDescriptors);
    expected.insert(expected.end(), streamBytes.begin(), streamBytes.end());
    EXPECT_EQ(vq_test::writeLoop(ours.descriptors), expected);
    dvbpsi_bat_delete(bat);
}

// ---- our classes render, libdvbpsi decodes ----

TEST(DvbpsiDecoded, RenderedPat) {
    mpegcore::CPAT ours(nullptr, 1024);
    ours.section_syntax_indicator = 1;
    ours.reserved = 3;
    ours.transport_stream_id = 0x0BAD;
    ours.reserved1 = 3;
    ours.version_number = 21;
    ours.current_next_indicator = 1;
    for (uint16_t i = 0; i < 12; ++i) {
        mpegcore::CBaseMpegProgram program;
        program.program_number = uint16_t(100 + i);
        program.reserved = 7;
        program.map_PID.program_map_PID = uint16_t(0x1000 - i * 16);
        ours.program_map[program.map_PID.program_map_PID] = program;
    }
    ours.RenderTable();

    struct Result {
        int calls = 0;
        uint16_t tsid = 0;
        uint8_t version = 0;
        std::vector<std::pair<uint16_t, uint16_t>> programs;
    } result;
    auto handle = newHandle();
    ASSERT_TRUE(dvbpsi_pat_attach(
        handle.get(),
        [](void* data, dvbpsi_pat_t* pat) {
            auto* r = static_cast<Result*>(data);
            r->calls++;
            r->tsid = pat->i_ts_id;
            r->version = pat->i_version;
            for (const dvbpsi_pat_program_t* p = pat->p_first_program; p; p = p->p_next)
                r->programs.emplace_back(p->i_number, p->i_pid);
            dvbpsi_pat_delete(pat);
        },
        &result));
    pushSection(handle.get(), renderedBytes(ours), 0);
    dvbpsi_pat_detach(handle.get());
    ASSERT_EQ(result.calls, 1);
    EXPECT_EQ(result.tsid, 0x0BAD);
    EXPECT_EQ(result.version, 21);
    ASSERT_EQ(result.programs.size(), 12u);
    auto it = ours.program_map.begin();
    for (const auto& [number, pid] : result.programs) {
        EXPECT_EQ(pid, it->first);
        EXPECT_EQ(number, it->second.program_number);
        ++it;
    }
}

TEST(DvbpsiDecoded, RenderedPmt) {
    mpegcore::CPMT ours(nullptr, 1024);
    ours.table_id = 0x02;
    ours.section_syntax_indicator = 1;
    ours.reserved = 3;
    ours.program_number = 0x0777;
    ours.reserved1 = 3;
    ours.version_number = 4;
    ours.current_next_indicator = 1;
    ours.reserved2 = 7;
    ours.PCR_PID = 0x321;
    ours.reserved3 = 0xF;
    ASSERT_TRUE(vq_test::readLoop(ours.descriptors, {0x05, 0x04, 'C', 'U', 'E', 'I', 0x80, 0x01, 0x42}));
    for (uint16_t pid : {0x321, 0x322, 0x400}) {
        auto stream = std::make_shared<mpegcore::CBaseStreamTypeMap>();
        stream->stream_type = uint8_t(pid & 0xFF);
        stream->reserved1 = 7;
        stream->elementary_PID = pid;
        stream->reserved2 = 0xF;
        if (pid != 0x322) {
            ASSERT_TRUE(vq_test::readLoop(stream->descriptors, {0x0A, 0x04, 'f', 'r', 'a', 0x01, 0x52, 0x01, 0x07}));
        }
        ours.stream_map[pid] = stream;
    }
    ours.RenderTable();

    struct Result {
        int calls = 0;
        uint16_t program = 0, pcr = 0;
        uint8_t version = 0;
        SectionBytes programDescriptors;
        std::vector<std::tuple<uint8_t, uint16_t, SectionBytes>> streams;
    } result;
    auto handle = newHandle();
    ASSERT_TRUE(dvbpsi_pmt_attach(
        handle.get(), 0x0777,
        [](void* data, dvbpsi_pmt_t* pmt) {
            auto* r = static_cast<Result*>(data);
            r->calls++;
            r->program = pmt->i_program_number;
            r->pcr = pmt->i_pcr_pid;
            r->version = pmt->i_version;
            r->programDescriptors = descriptorBytes(pmt->p_first_descriptor);
            for (const dvbpsi_pmt_es_t* es = pmt->p_first_es; es; es = es->p_next)
                r->streams.emplace_back(es->i_type, es->i_pid, descriptorBytes(es->p_first_descriptor));
            dvbpsi_pmt_delete(pmt);
        },
        &result));
    pushSection(handle.get(), renderedBytes(ours), 0x100);
    dvbpsi_pmt_detach(handle.get());
    ASSERT_EQ(result.calls, 1);
    EXPECT_EQ(result.program, 0x0777);
    EXPECT_EQ(result.pcr, 0x321);
    EXPECT_EQ(result.version, 4);
    EXPECT_EQ(result.programDescriptors, vq_test::writeLoop(ours.descriptors));
    ASSERT_EQ(result.streams.size(), 3u);
    auto it = ours.stream_map.begin();
    for (const auto& [type, pid, descriptors] : result.streams) {
        EXPECT_EQ(type, it->second->stream_type);
        EXPECT_EQ(pid, it->first);
        EXPECT_EQ(descriptors, vq_test::writeLoop(it->second->descriptors));
        ++it;
    }
}

TEST(DvbpsiDecoded, RenderedCat) {
    mpegcore::CCAT ours(nullptr, 1024);
    ours.table_id = 0x01;
    ours.section_syntax_indicator = 1;
    ours.reserved = 3;
    ours.reserved1 = 0x3FFFF;
    ours.version_number = 11;
    ours.current_next_indicator = 1;
    ASSERT_TRUE(vq_test::readLoop(ours.descriptors, rawBytes(kCaDescriptors)));
    ours.RenderTable();

    struct Result {
        int calls = 0;
        uint8_t version = 0;
        SectionBytes descriptors;
    } result;
    auto handle = newHandle();
    ASSERT_TRUE(dvbpsi_cat_attach(
        handle.get(),
        [](void* data, dvbpsi_cat_t* cat) {
            auto* r = static_cast<Result*>(data);
            r->calls++;
            r->version = cat->i_version;
            r->descriptors = descriptorBytes(cat->p_first_descriptor);
            dvbpsi_cat_delete(cat);
        },
        &result));
    pushSection(handle.get(), renderedBytes(ours), 0x001);
    dvbpsi_cat_detach(handle.get());
    ASSERT_EQ(result.calls, 1);
    EXPECT_EQ(result.version, 11);
    EXPECT_EQ(result.descriptors, rawBytes(kCaDescriptors));
}

namespace {

// Runs the demux with one decoder attached by `attach` and pushes a section.
void decodeThroughDemux(const SectionBytes& section, uint16_t pid,
                        std::function<void(dvbpsi_t*, uint8_t, uint16_t)> attach, int times = 1) {
    auto handle = newHandle();
    DemuxAttach demux{std::move(attach)};
    ASSERT_TRUE(dvbpsi_AttachDemux(handle.get(), onNewSubtable, &demux));
    pushSection(handle.get(), section, pid, times);
    dvbpsi_DetachDemux(handle.get());
}

// What libdvbpsi decoded from a NIT or a BAT: the id, the version, the first
// descriptor loop and each transport stream with its descriptors.
struct NetworkLoopResult {
    int calls = 0;
    uint16_t id = 0;
    uint8_t version = 0;
    SectionBytes descriptors;
    std::vector<std::tuple<uint16_t, uint16_t, SectionBytes>> streams;
};

template <class Table>
void collectNetworkLoop(void* data, uint16_t id, const Table* table) {
    auto* r = static_cast<NetworkLoopResult*>(data);
    r->calls++;
    r->id = id;
    r->version = table->i_version;
    r->descriptors = descriptorBytes(table->p_first_descriptor);
    for (const auto* t = table->p_first_ts; t; t = t->p_next)
        r->streams.emplace_back(t->i_ts_id, t->i_orig_network_id, descriptorBytes(t->p_first_descriptor));
}

// Decodes a NIT (any table id but 0x4A) or a BAT (0x4A) section on pid.
NetworkLoopResult decodeNetworkLoop(const SectionBytes& section, uint16_t pid, uint8_t tableId) {
    NetworkLoopResult result;
    decodeThroughDemux(section, pid, [&](dvbpsi_t* h, uint8_t id, uint16_t extension) {
        if (id != tableId)
            return;
        if (tableId == 0x4A)
            dvbpsi_bat_attach(
                h, id, extension,
                [](void* data, dvbpsi_bat_t* bat) {
                    collectNetworkLoop(data, bat->i_extension, bat);
                    dvbpsi_bat_delete(bat);
                },
                &result);
        else
            dvbpsi_nit_attach(
                h, id, extension,
                [](void* data, dvbpsi_nit_t* nit) {
                    collectNetworkLoop(data, nit->i_network_id, nit);
                    dvbpsi_nit_delete(nit);
                },
                &result);
    });
    return result;
}

// The decoded streams are ours, in order, each with kStreamDescriptors.
template <class Streams>
void expectStreams(const NetworkLoopResult& result, const Streams& ours) {
    ASSERT_EQ(result.streams.size(), ours.size());
    auto it = ours.begin();
    for (const auto& [tsid, onid, descriptors] : result.streams) {
        EXPECT_EQ(tsid, (*it)->transport_stream_id);
        EXPECT_EQ(onid, (*it)->original_network_id);
        EXPECT_EQ(descriptors, rawBytes(kStreamDescriptors));
        ++it;
    }
}

}  // namespace

TEST(DvbpsiDecoded, RenderedSdt) {
    mpegcore::CSDT ours(nullptr, 1024);
    ours.table_id = 0x42;
    ours.section_syntax_indicator = 1;
    ours.zero = 1;
    ours.reserved = 3;
    ours.transport_stream_id = 0x0304;
    ours.reserved1 = 3;
    ours.version_number = 6;
    ours.current_next_indicator = 1;
    ours.original_network_id = 0x0506;
    ours.reserved_future_use1 = 0xFF;
    for (uint16_t id : {0x30, 0x10, 0x20}) {
        auto service = std::make_shared<mpegcore::CServiceDescriptionSection>();
        service->service_id = id;
        service->reserved_future_use = 0x3F;
        service->EIT_schedule_flag = id == 0x10;
        service->EIT_present_following_flag = 1;
        service->running_status = uint8_t(id >> 4);
        service->free_CA_mode = id == 0x30;
        ASSERT_TRUE(vq_test::readLoop(service->descriptors, rawBytes(kServiceDescriptors)));
        ours.sds[id] = service;
    }
    ours.RenderTable();

    struct Service {
        uint16_t id;
        bool schedule, present, freeCa;
        uint8_t running;
        SectionBytes descriptors;
    };
    struct Result {
        int calls = 0;
        uint16_t tsid = 0, onid = 0;
        uint8_t version = 0;
        std::vector<Service> services;
    } result;
    decodeThroughDemux(renderedBytes(ours), 0x11, [&](dvbpsi_t* h, uint8_t tableId, uint16_t extension) {
        if (tableId == 0x42)
            dvbpsi_sdt_attach(
                h, tableId, extension,
                [](void* data, dvbpsi_sdt_t* sdt) {
                    auto* r = static_cast<Result*>(data);
                    r->calls++;
                    r->tsid = sdt->i_extension;
                    r->onid = sdt->i_network_id;
                    r->version = sdt->i_version;
                    for (const dvbpsi_sdt_service_t* s = sdt->p_first_service; s; s = s->p_next)
                        r->services.push_back({s->i_service_id, s->b_eit_schedule, s->b_eit_present, s->b_free_ca,
                                               s->i_running_status, descriptorBytes(s->p_first_descriptor)});
                    dvbpsi_sdt_delete(sdt);
                },
                &result);
    });
    ASSERT_EQ(result.calls, 1);
    EXPECT_EQ(result.tsid, 0x0304);
    EXPECT_EQ(result.onid, 0x0506);
    EXPECT_EQ(result.version, 6);
    ASSERT_EQ(result.services.size(), 3u);
    auto it = ours.sds.begin();
    for (const auto& s : result.services) {
        const auto& service = *it++->second;
        EXPECT_EQ(s.id, service.service_id);
        EXPECT_EQ(s.schedule, bool(service.EIT_schedule_flag));
        EXPECT_EQ(s.present, bool(service.EIT_present_following_flag));
        EXPECT_EQ(s.freeCa, bool(service.free_CA_mode));
        EXPECT_EQ(s.running, service.running_status);
        EXPECT_EQ(s.descriptors, rawBytes(kServiceDescriptors));
    }
}

TEST(DvbpsiDecoded, RenderedNit) {
    mpegcore::CNIT ours(nullptr, 1024);
    ours.table_id = 0x40;
    ours.section_syntax_indicator = 1;
    ours.zero = 1;
    ours.reserved = 3;
    ours.network_id = 0x3001;
    ours.reserved1 = 3;
    ours.version_number = 2;
    ours.current_next_indicator = 1;
    ours.reserved_future_use = 0xF;
    ours.reserved_future_use1 = 0xF;
    ASSERT_TRUE(vq_test::readLoop(ours.descriptors, rawBytes(kNetworkDescriptors)));
    for (uint16_t tsid : {0x0304, 0x0305}) {
        auto stream = std::make_shared<mpegcore::CBaseTransportStream>();
        stream->transport_stream_id = tsid;
        stream->original_network_id = 0x0506;
        stream->reserved_future_use = 0xF;
        ASSERT_TRUE(vq_test::readLoop(stream->descriptors, rawBytes(kStreamDescriptors)));
        ours.transport_stream.push_back(stream);
    }
    ASSERT_TRUE(ours.RenderTable());

    const NetworkLoopResult result = decodeNetworkLoop(renderedBytes(ours), 0x10, 0x40);
    ASSERT_EQ(result.calls, 1);
    EXPECT_EQ(result.id, 0x3001);
    EXPECT_EQ(result.version, 2);
    EXPECT_EQ(result.descriptors, rawBytes(kNetworkDescriptors));
    expectStreams(result, ours.transport_stream);
}

TEST(DvbpsiDecoded, RenderedEit) {
    mpegcore::CEIT ours(nullptr, 4096);
    ours.table_id = 0x4E;
    ours.section_syntax_indicator = 1;
    ours.zero = 1;
    ours.reserved = 3;
    ours.service_id = 0x0102;
    ours.reserved1 = 3;
    ours.version_number = 8;
    ours.current_next_indicator = 1;
    ours.transport_stream_id = 0x0304;
    ours.original_network_id = 0x0506;
    ours.last_table_id = 0x4E;
    for (uint16_t id = 1; id <= 3; ++id) {
        auto event = std::make_shared<mpegcore::CEventInfo>();
        event->event_id = id;
        event->start_time = mpegcore::CEventInfo::time_t_to_start_time(1794771602 + id * 5400);
        event->duration = mpegcore::CEventInfo::sec_to_duration(5400);
        event->running_status = uint8_t(id);
        event->free_CA_mode = id == 2;
        ASSERT_TRUE(vq_test::readLoop(event->descriptors, rawBytes(kEventDescriptors)));
        ours.eventInfo.push_back(event);
    }
    ours.RenderTable();

    struct Event {
        uint16_t id;
        uint64_t start;
        uint32_t duration;
        uint8_t running;
        bool freeCa;
        SectionBytes descriptors;
    };
    struct Result {
        int calls = 0;
        uint16_t serviceId = 0, tsid = 0, onid = 0;
        uint8_t version = 0, lastTableId = 0;
        std::vector<Event> events;
    } result;
    decodeThroughDemux(
        renderedBytes(ours), 0x12,
        [&](dvbpsi_t* h, uint8_t tableId, uint16_t extension) {
            if (tableId == 0x4E)
                dvbpsi_eit_attach(
                    h, tableId, extension,
                    [](void* data, dvbpsi_eit_t* eit) {
                        auto* r = static_cast<Result*>(data);
                        r->calls++;
                        r->serviceId = eit->i_extension;
                        r->tsid = eit->i_ts_id;
                        r->onid = eit->i_network_id;
                        r->version = eit->i_version;
                        r->lastTableId = eit->i_last_table_id;
                        for (const dvbpsi_eit_event_t* e = eit->p_first_event; e; e = e->p_next)
                            r->events.push_back({e->i_event_id, e->i_start_time, e->i_duration, e->i_running_status,
                                                 e->b_free_ca, descriptorBytes(e->p_first_descriptor)});
                        dvbpsi_eit_delete(eit);
                    },
                    &result);
        },
        2);  // libdvbpsi 1.3.3 hands an EIT over only when the next section on the PID arrives
    ASSERT_EQ(result.calls, 1);
    EXPECT_EQ(result.serviceId, 0x0102);
    EXPECT_EQ(result.tsid, 0x0304);
    EXPECT_EQ(result.onid, 0x0506);
    EXPECT_EQ(result.version, 8);
    EXPECT_EQ(result.lastTableId, 0x4E);
    ASSERT_EQ(result.events.size(), 3u);
    auto it = ours.eventInfo.begin();
    for (const auto& e : result.events) {
        const auto& event = **it++;
        EXPECT_EQ(e.id, event.event_id);
        EXPECT_EQ(e.start, event.start_time);
        EXPECT_EQ(e.duration, event.duration);
        EXPECT_EQ(e.running, event.running_status);
        EXPECT_EQ(e.freeCa, bool(event.free_CA_mode));
        EXPECT_EQ(e.descriptors, rawBytes(kEventDescriptors));
    }
}

TEST(DvbpsiDecoded, RenderedTot) {
    mpegcore::CTOT ours(nullptr, 1024);
    ours.table_id = 0x73;
    ours.zero = 1;
    ours.reserved = 3;
    ours.UTC_time = 0xEFBF194002ull;
    ours.reserved1 = 0xF;
    const SectionBytes lto{0x58, 0x0D, 'D', 'E', 'U', 0x02, 0x01, 0x00, 0xEF, 0xBF, 0x02, 0x00, 0x00, 0x02, 0x00};
    ASSERT_TRUE(vq_test::readLoop(ours.descriptors, lto));
    ours.RenderTable();

    struct Result {
        int calls = 0;
        uint64_t utc = 0;
        SectionBytes descriptors;
    } result;
    decodeThroughDemux(renderedBytes(ours), 0x14, [&](dvbpsi_t* h, uint8_t tableId, uint16_t extension) {
        if (tableId == 0x73)
            dvbpsi_tot_attach(
                h, tableId, extension,
                [](void* data, dvbpsi_tot_t* tot) {
                    auto* r = static_cast<Result*>(data);
                    r->calls++;
                    r->utc = tot->i_utc_time;
                    r->descriptors = descriptorBytes(tot->p_first_descriptor);
                    dvbpsi_tot_delete(tot);
                },
                &result);
    });
    ASSERT_EQ(result.calls, 1);
    EXPECT_EQ(result.utc, 0xEFBF194002ull);
    EXPECT_EQ(result.descriptors, lto);
}

TEST(DvbpsiDecoded, RenderedTdt) {
    mpegcore::CTDT ours(0xC079124500ull, nullptr, 1024);
    ours.RenderTable();
    struct Result {
        int calls = 0;
        uint64_t utc = 0;
    } result;
    decodeThroughDemux(renderedBytes(ours), 0x14, [&](dvbpsi_t* h, uint8_t tableId, uint16_t extension) {
        if (tableId == 0x70)
            dvbpsi_tot_attach(
                h, tableId, extension,
                [](void* data, dvbpsi_tot_t* tdt) {
                    auto* r = static_cast<Result*>(data);
                    r->calls++;
                    r->utc = tdt->i_utc_time;
                    dvbpsi_tot_delete(tdt);
                },
                &result);
    });
    ASSERT_EQ(result.calls, 1);
    EXPECT_EQ(result.utc, 0xC079124500ull);
}

TEST(DvbpsiDecoded, RenderedBat) {
    mpegcore::CBAT ours(nullptr, 4096);
    ours.table_id = 0x4A;
    ours.section_syntax_indicator = 1;
    ours.zero = 1;
    ours.reserved = 3;
    ours.bouquet_id = 0x6001;
    ours.reserved1 = 3;
    ours.version_number = 30;
    ours.current_next_indicator = 1;
    ours.reserved_future_use2 = 0xF;
    ours.reserved_future_use3 = 0xF;
    ASSERT_TRUE(vq_test::readLoop(ours.descriptors, {0x47, 0x02, 'B', 'q'}));
    for (uint16_t tsid : {0x0304, 0x0305}) {
        auto* stream = new mpegcore::CBouquetAssociationStream();
        stream->transport_stream_id = tsid;
        stream->original_network_id = 0x0506;
        stream->reserved_future_use = 0xF;
        ours.BouquetAssociationStreamList.push_back(stream);
        ASSERT_TRUE(vq_test::readLoop(stream->descriptors, rawBytes(kStreamDescriptors)));
    }
    ASSERT_TRUE(ours.RenderTable());

    const NetworkLoopResult result = decodeNetworkLoop(renderedBytes(ours), 0x11, 0x4A);
    ASSERT_EQ(result.calls, 1);
    EXPECT_EQ(result.id, 0x6001);
    EXPECT_EQ(result.version, 30);
    EXPECT_EQ(result.descriptors, SectionBytes({0x47, 0x02, 'B', 'q'}));
    expectStreams(result, ours.BouquetAssociationStreamList);
}
