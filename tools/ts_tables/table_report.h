#pragma once
// The PSI/SI tables of mpegcore as report nodes: every field with its name,
// coded values with the names the standards give them, times as UTC dates.

#include <cstdint>

#include "mpegcore/BAT.h"
#include "mpegcore/CAT.h"
#include "mpegcore/EIT.h"
#include "mpegcore/NIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/TSDT.h"
#include "report_node.h"

// Each starts with "table" (the short name) and "pid".
report_node describe_pat(const mpegcore::CPAT& pat);
report_node describe_pmt(uint16_t pid, const mpegcore::CPMT& pmt);
report_node describe_cat(const mpegcore::CCAT& cat);
report_node describe_tsdt(const mpegcore::CTSDT& tsdt);
report_node describe_nit(const mpegcore::CNIT& nit);
report_node describe_sdt(const mpegcore::CSDT& sdt);
report_node describe_bat(const mpegcore::CBAT& bat);
report_node describe_eit(const mpegcore::CEIT& eit);
report_node describe_tdt(const mpegcore::CTDT& tdt);
report_node describe_tot(const mpegcore::CTOT& tot);

// Whether the program descriptors register the "HDMV" format (Blu-ray
// stream types).
bool is_hdmv_program(const mpegcore::CPMT& pmt);
