#include "descriptor_report.h"

#include <algorithm>
#include <typeinfo>

#include "mpegcore/DvbText.h"
#include "si_names.h"

using namespace mpegcore;

namespace {

void describe_mpeg(const base_descriptor& d, report_node& n) {
    if (auto* v = dynamic_cast<const video_stream_descriptor*>(&d)) {
        n.add("multiple_frame_rate_flag", v->multiple_frame_rate_flag);
        n.add("frame_rate_code", v->frame_rate_code);
        n.add("MPEG_1_only_flag", v->MPEG_1_only_flag);
        n.add("constrained_parameter_flag", v->constrained_parameter_flag);
        n.add("still_picture_flag", v->still_picture_flag);
        if (!v->MPEG_1_only_flag) {
            n.add("profile_and_level_indication", v->profile_and_level_indication, 2);
            n.add("chroma_format", v->chroma_format);
            n.add("frame_rate_extension_flag", v->frame_rate_extension_flag);
        }
    } else if (auto* a = dynamic_cast<const audio_stream_descriptor*>(&d)) {
        n.add("free_format_flag", a->free_format_flag);
        n.add("ID", a->ID);
        n.add("layer", a->layer);
        n.add("variable_rate_audio_indicator", a->variable_rate_audio_indicator);
    } else if (auto* r = dynamic_cast<const registration_descriptor*>(&d)) {
        n.add("format_identifier", r->format_identifier, 8, si_names::four_cc(r->format_identifier));
        if (r->descriptor_length > 4)
            n.add("additional_identification_info",
                  si_names::hex_bytes(r->additional_identification_info, r->descriptor_length - 4u));
    } else if (auto* ca = dynamic_cast<const CA_descriptor*>(&d)) {
        n.add("CA_system_ID", ca->CA_system_ID, 4);
        n.add("CA_PID", ca->CA_PID, 4);
        if (ca->descriptor_length > 4)
            n.add("private_data_byte", si_names::hex_bytes(ca->private_data_byte, ca->descriptor_length - 4u));
    } else if (auto* l = dynamic_cast<const ISO_639_language_descriptor*>(&d)) {
        report_node& items = n.add("languages", report_node::array());
        for (const auto& item : l->language_list) {
            report_node& e = items.push(report_node());
            e.add("ISO_639_language_code", si_names::language_code(item.ISO_639_language_code));
            e.add("audio_type", item.audio_type);
        }
    } else if (auto* m = dynamic_cast<const multiplex_buffer_utilization_descriptor*>(&d)) {
        n.add("bound_valid_flag", m->bound_valid_flag);
        n.add("LTW_offset_lower_bound", m->LTW_offset_lower_bound);
        n.add("LTW_offset_upper_bound", m->LTW_offset_upper_bound);
    } else if (auto* s = dynamic_cast<const smoothing_buffer_descriptor*>(&d)) {
        n.add("sb_leak_rate", s->sb_leak_rate);
        n.add("sb_size", s->sb_size);
    } else if (auto* std_ = dynamic_cast<const STD_descriptor*>(&d)) {
        n.add("leak_valid_flag", std_->leak_valid_flag);
    }
}

void describe_dvb_networks(const base_descriptor& d, report_node& n) {
    if (auto* nn = dynamic_cast<const network_name_descriptor*>(&d)) {
        n.add("network_name", DvbText::to_utf8(nn->char_, nn->descriptor_length));
    } else if (auto* sl = dynamic_cast<const service_list_descriptor*>(&d)) {
        report_node& items = n.add("services", report_node::array());
        for (const auto& s : sl->services) {
            report_node& e = items.push(report_node());
            e.add("service_id", s.service_id);
            e.add("service_type", s.service_type, 2, si_names::service_type(s.service_type));
        }
    } else if (auto* bn = dynamic_cast<const bouquet_name_descriptor*>(&d)) {
        n.add("bouquet_name", DvbText::to_utf8(bn->character));
    } else if (auto* lc = dynamic_cast<const logical_channel_descriptor*>(&d)) {
        report_node& items = n.add("channels", report_node::array());
        for (const auto& s : lc->m_listService) {
            report_node& e = items.push(report_node());
            e.add("service_id", s.service_id);
            e.add("visible_service_flag", s.visible_service_flag);
            e.add("logical_channel_number", s.logical_channel_number);
        }
    } else if (auto* t2 = dynamic_cast<const T2_delivery_system_descriptor*>(&d)) {
        n.add("descriptor_tag_extension", t2->descriptor_tag_extension, 2);
        n.add("plp_id", t2->plp_id);
        n.add("T2_system_id", t2->T2_system_id);
        n.add("SISO_MISO", t2->SISO_MISO);
        n.add("bandwidth", t2->bandwidth);
        n.add("guard_interval", t2->guard_interval);
        n.add("transmission_mode", t2->transmission_mode);
        n.add("other_frequency_flag", t2->other_frequency_flag);
        n.add("tfs_flag", t2->tfs_flag);
    } else if (auto* ext = dynamic_cast<const extension_descriptor*>(&d)) {
        n.add("descriptor_tag_extension", ext->descriptor_tag_extension, 2);
        n.add("selector_bytes", si_names::hex_bytes(ext->selector_bytes.data(), ext->selector_bytes.size()));
    } else if (auto* lto = dynamic_cast<const local_time_offset_descriptor*>(&d)) {
        report_node& items = n.add("offsets", report_node::array());
        for (const auto& e : lto->m_listEntry) {
            report_node& item = items.push(report_node());
            item.add("country_code", si_names::language_code(e->country_code));
            item.add("country_region_id", e->country_region_id);
            item.add("local_time_offset_polarity", e->local_time_offset_polarity);
            item.add("local_time_offset",
                     si_names::bcd_duration(static_cast<uint32_t>(e->local_time_offset) << 8).substr(0, 5));
            item.add("time_of_change", si_names::utc_time(e->time_of_change));
            item.add("next_time_offset",
                     si_names::bcd_duration(static_cast<uint32_t>(e->next_time_offset) << 8).substr(0, 5));
        }
    } else if (auto* pds = dynamic_cast<const private_data_specifier_descriptor*>(&d)) {
        n.add("private_data_specifier", pds->private_data_specifier, 8);
    }
}

void describe_dvb_services(const base_descriptor& d, report_node& n) {
    if (auto* s = dynamic_cast<const service_descriptor*>(&d)) {
        n.add("service_type", s->service_type, 2, si_names::service_type(s->service_type));
        n.add("service_provider_name", DvbText::to_utf8(s->service_provider_name, s->service_provider_name_length));
        n.add("service_name", DvbText::to_utf8(s->service_name, s->service_name_length));
    } else if (auto* se = dynamic_cast<const short_event_descriptor*>(&d)) {
        n.add("ISO_639_language_code", si_names::language_code(se->ISO_639_language_code));
        n.add("event_name", DvbText::to_utf8(se->event_name_char, se->event_name_length));
        n.add("text", DvbText::to_utf8(se->text_char, se->text_length));
    } else if (auto* ee = dynamic_cast<const extended_event_descriptor*>(&d)) {
        n.add("descriptor_number", ee->descriptor_number);
        n.add("last_descriptor_number", ee->last_descriptor_number);
        n.add("ISO_639_language_code", si_names::language_code(ee->ISO_639_language_code));
        report_node& items = n.add("items", report_node::array());
        for (const auto& item : ee->items) {
            report_node& e = items.push(report_node());
            e.add("item_description", DvbText::to_utf8(item.item_description_char));
            e.add("item", DvbText::to_utf8(item.item_char));
        }
        n.add("text", DvbText::to_utf8(ee->text_char));
    } else if (auto* si = dynamic_cast<const stream_identifier_descriptor*>(&d)) {
        n.add("component_tag", si->component_tag);
    } else if (auto* pr = dynamic_cast<const parental_rating_descriptor*>(&d)) {
        report_node& items = n.add("ratings", report_node::array());
        for (const auto& p : pr->parentals) {
            report_node& e = items.push(report_node());
            e.add("country_code", si_names::language_code(p.country_code));
            e.add("rating", p.rating);
        }
    } else if (auto* tt = dynamic_cast<const teletext_descriptor*>(&d)) {
        report_node& items = n.add("pages", report_node::array());
        for (const auto& t : tt->teletext_list) {
            report_node& e = items.push(report_node());
            e.add("ISO_639_language_code", si_names::language_code(t->ISO_639_language_code));
            e.add("teletext_type", t->teletext_type);
            e.add("teletext_magazine_number", t->teletext_magazine_number);
            e.add("teletext_page_number", t->teletext_page_number, 2);
        }
    } else if (auto* sub = dynamic_cast<const subtitling_descriptor*>(&d)) {
        report_node& items = n.add("subtitles", report_node::array());
        for (const auto& s : sub->subtitling_list) {
            report_node& e = items.push(report_node());
            e.add("ISO_639_language_code", si_names::language_code(s->ISO_639_language_code));
            e.add("subtitling_type", s->subtitling_type, 2);
            e.add("composition_page_id", s->composition_page_id);
            e.add("ancillary_page_id", s->ancillary_page_id);
        }
    } else if (auto* vbi = dynamic_cast<const VBI_data_descriptor*>(&d)) {
        report_node& items = n.add("data_services", report_node::array());
        for (const auto& s : vbi->service_list) {
            report_node& e = items.push(report_node());
            e.add("data_service_id", s->data_service_id);
            e.add("service_data", si_names::hex_bytes(s->service_data, s->data_service_descriptor_length));
        }
    } else if (auto* ac3 = dynamic_cast<const ac3_descriptor*>(&d)) {
        if (ac3->component_type_flag)
            n.add("component_type", ac3->component_type, 2);
        if (ac3->bsid_flag)
            n.add("bsid", ac3->bsid);
        if (ac3->mainid_flag)
            n.add("mainid", ac3->mainid);
        if (ac3->asvc_flag)
            n.add("asvc", ac3->asvc);
    }
}

void describe_scte35(const base_descriptor& d, report_node& n) {
    if (auto* cue = dynamic_cast<const cue_identifier_descriptor*>(&d)) {
        n.add("cue_stream_type", cue->cue_stream_type, 2);
    } else if (auto* avail = dynamic_cast<const avail_descriptor*>(&d)) {
        n.add("identifier", avail->identifier, 8);
        n.add("provider_avail_id", avail->provider_avail_id);
    } else if (auto* dtmf = dynamic_cast<const scte35_dtmf_descriptor*>(&d)) {
        n.add("identifier", dtmf->identifier, 8);
        n.add("preroll", dtmf->preroll);
        n.add("DTMF_chars", std::string(dtmf->DTMF_chars.begin(), dtmf->DTMF_chars.end()));
    } else if (auto* seg = dynamic_cast<const scte35_segmentation_descriptor*>(&d)) {
        n.add("identifier", seg->identifier, 8);
        n.add("segmentation_event_id", seg->segmentation_event_id);
        n.add("segmentation_event_cancel_indicator", seg->segmentation_event_cancel_indicator);
        n.add("segmentation_type_id", seg->segmentation_type_id, 2);
        n.add("segment_num", seg->segment_num);
        n.add("segments_expected", seg->segments_expected);
    }
}

}  // namespace

report_node describe_descriptor(const base_descriptor& descriptor) {
    report_node n;
    n.add("descriptor_tag", descriptor.descriptor_tag, 2, si_names::descriptor_tag(descriptor.descriptor_tag));
    n.add("descriptor_length", descriptor.descriptor_length);
    if (typeid(descriptor) == typeid(base_descriptor)) {
        // A tag mpegcore does not model: the payload as it came.
        if (descriptor.descriptor_data.isValid())
            n.add("data", si_names::hex_bytes(
                              descriptor.descriptor_data.get(),
                              std::min<size_t>(descriptor.descriptor_data.size(), descriptor.descriptor_length)));
        return n;
    }
    describe_mpeg(descriptor, n);
    describe_dvb_networks(descriptor, n);
    describe_dvb_services(descriptor, n);
    describe_scte35(descriptor, n);
    return n;
}

report_node describe_descriptors(const VQDescriptorList& list) {
    report_node items = report_node::array();
    for (const auto& descriptor : list.descriptor)
        if (descriptor)
            items.push(describe_descriptor(*descriptor));
    return items;
}
