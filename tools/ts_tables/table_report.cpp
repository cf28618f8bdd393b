#include "table_report.h"

#include "descriptor_report.h"
#include "si_names.h"

using namespace mpegcore;

namespace {

constexpr uint32_t kHdmvFormat = 0x48444D56;  // "HDMV"

report_node table_head(const char* name, uint16_t pid, const CBaseMpegTable& table) {
    report_node n;
    n.add("table", name);
    n.add("pid", pid, 4);
    n.add("table_id", table.table_id, 2, si_names::table_id(table.table_id));
    n.add("section_syntax_indicator", table.section_syntax_indicator);
    n.add("section_length", table.section_length);
    return n;
}

// version_number, current_next_indicator, section_number, last_section_number.
template <class T>
void add_version(report_node& n, const T& table) {
    n.add("version_number", table.version_number);
    n.add("current_next_indicator", table.current_next_indicator);
    n.add("section_number", table.section_number);
    n.add("last_section_number", table.last_section_number);
}

void add_crc(report_node& n, uint32_t crc) { n.add("CRC_32", crc, 8); }

report_node describe_descriptor_loop_table(const char* name, uint16_t pid, const CDescriptorLoopTable& table) {
    report_node n = table_head(name, pid, table);
    add_version(n, table);
    n.add("descriptors", describe_descriptors(table.descriptors));
    add_crc(n, table.CRC);
    return n;
}

}  // namespace

bool is_hdmv_program(const CPMT& pmt) {
    for (const auto& descriptor : pmt.descriptors.descriptor)
        if (auto* registration = dynamic_cast<const registration_descriptor*>(descriptor.get()))
            if (registration->format_identifier == kHdmvFormat)
                return true;
    return false;
}

report_node describe_pat(const CPAT& pat) {
    report_node n = table_head("PAT", 0x0000, pat);
    n.add("transport_stream_id", pat.transport_stream_id);
    add_version(n, pat);
    report_node& programs = n.add("programs", report_node::array());
    for (const auto& entry : pat.program_map) {
        const CBaseMpegProgram& program = entry.second;
        report_node& p = programs.push(report_node());
        p.add("program_number", program.program_number);
        if (program.program_number == 0)
            p.add("network_PID", program.map_PID.network_PID, 4);
        else
            p.add("program_map_PID", program.map_PID.program_map_PID, 4);
    }
    add_crc(n, pat.CRC);
    return n;
}

report_node describe_pmt(uint16_t pid, const CPMT& pmt) {
    report_node n = table_head("PMT", pid, pmt);
    n.add("program_number", pmt.program_number);
    add_version(n, pmt);
    n.add("PCR_PID", pmt.PCR_PID, 4);
    n.add("program_info_length", pmt.program_info_length);
    n.add("descriptors", describe_descriptors(pmt.descriptors));
    const bool hdmv = is_hdmv_program(pmt);
    report_node& streams = n.add("streams", report_node::array());
    for (const auto& entry : pmt.stream_map) {
        const CBaseStreamTypeMap& stream = *entry.second;
        report_node& s = streams.push(report_node());
        s.add("stream_type", stream.stream_type, 2, si_names::stream_type(stream.stream_type, hdmv));
        s.add("elementary_PID", stream.elementary_PID, 4);
        s.add("ES_info_length", stream.ES_info_length);
        s.add("descriptors", describe_descriptors(stream.descriptors));
    }
    add_crc(n, pmt.CRC);
    return n;
}

report_node describe_cat(const CCAT& cat) { return describe_descriptor_loop_table("CAT", 0x0001, cat); }

report_node describe_tsdt(const CTSDT& tsdt) { return describe_descriptor_loop_table("TSDT", 0x0002, tsdt); }

report_node describe_nit(const CNIT& nit) {
    report_node n = table_head("NIT", 0x0010, nit);
    n.add("network_id", nit.network_id);
    add_version(n, nit);
    n.add("network_descriptors_length", nit.network_descriptors_length);
    n.add("descriptors", describe_descriptors(nit.descriptors));
    n.add("transport_stream_loop_length", nit.transport_stream_loop_length);
    report_node& streams = n.add("transport_streams", report_node::array());
    for (const auto& ts : nit.transport_stream) {
        report_node& s = streams.push(report_node());
        s.add("transport_stream_id", ts->transport_stream_id);
        s.add("original_network_id", ts->original_network_id);
        s.add("transport_descriptors_length", ts->network_descriptors_length);
        s.add("descriptors", describe_descriptors(ts->descriptors));
    }
    add_crc(n, nit.CRC);
    return n;
}

report_node describe_sdt(const CSDT& sdt) {
    report_node n = table_head("SDT", 0x0011, sdt);
    n.add("transport_stream_id", sdt.transport_stream_id);
    add_version(n, sdt);
    n.add("original_network_id", sdt.original_network_id);
    report_node& services = n.add("services", report_node::array());
    for (const auto& entry : sdt.sds) {
        const CServiceDescriptionSection& service = *entry.second;
        report_node& s = services.push(report_node());
        s.add("service_id", service.service_id);
        s.add("EIT_schedule_flag", service.EIT_schedule_flag);
        s.add("EIT_present_following_flag", service.EIT_present_following_flag);
        s.add("running_status", service.running_status, 0, si_names::running_status(service.running_status));
        s.add("free_CA_mode", service.free_CA_mode);
        s.add("descriptors_loop_length", service.descriptors_loop_length);
        s.add("descriptors", describe_descriptors(service.descriptors));
    }
    add_crc(n, sdt.CRC);
    return n;
}

report_node describe_bat(const CBAT& bat) {
    report_node n = table_head("BAT", 0x0011, bat);
    n.add("bouquet_id", bat.bouquet_id);
    add_version(n, bat);
    n.add("bouquet_descriptors_length", bat.bouquet_descriptors_length);
    // The stream entries' descriptors follow the bouquet descriptors here.
    n.add("descriptors", describe_descriptors(bat.descriptors));
    n.add("transport_stream_loop_length", bat.transport_stream_loop_length);
    report_node& streams = n.add("transport_streams", report_node::array());
    for (const CBouquetAssociationStream* ts : bat.BouquetAssociationStreamList) {
        report_node& s = streams.push(report_node());
        s.add("transport_stream_id", ts->transport_stream_id);
        s.add("original_network_id", ts->original_network_id);
        s.add("transport_descriptors_length", ts->transport_descriptors_length);
    }
    add_crc(n, bat.CRC);
    return n;
}

report_node describe_eit(const CEIT& eit) {
    report_node n = table_head("EIT", 0x0012, eit);
    n.add("service_id", eit.service_id);
    add_version(n, eit);
    n.add("transport_stream_id", eit.transport_stream_id);
    n.add("original_network_id", eit.original_network_id);
    n.add("segment_last_section_number", eit.segment_last_section_number);
    n.add("last_table_id", eit.last_table_id, 2);
    report_node& events = n.add("events", report_node::array());
    for (const auto& event : eit.eventInfo) {
        report_node& e = events.push(report_node());
        e.add("event_id", event->event_id);
        e.add("start_time", si_names::utc_time(event->start_time));
        e.add("duration", si_names::bcd_duration(event->duration));
        e.add("running_status", event->running_status, 0, si_names::running_status(event->running_status));
        e.add("free_CA_mode", event->free_CA_mode);
        e.add("descriptors_loop_length", event->descriptors_loop_length);
        e.add("descriptors", describe_descriptors(event->descriptors));
    }
    add_crc(n, eit.CRC);
    return n;
}

report_node describe_tdt(const CTDT& tdt) {
    report_node n = table_head("TDT", 0x0014, tdt);
    n.add("UTC_time", si_names::utc_time(tdt.UTC_time));
    return n;
}

report_node describe_tot(const CTOT& tot) {
    report_node n = table_head("TOT", 0x0014, tot);
    n.add("UTC_time", si_names::utc_time(tot.UTC_time));
    n.add("descriptors_loop_length", tot.descriptors_loop_length);
    n.add("descriptors", describe_descriptors(tot.descriptors));
    add_crc(n, tot.CRC);
    return n;
}
