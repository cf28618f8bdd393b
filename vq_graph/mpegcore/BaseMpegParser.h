#pragma once
// Transport packet parser (ISO/IEC 13818-1): per-PID state, PSI/SI section
// assembly and reading of the well-known tables, programs followed from the
// PAT and PMTs, everything reported through virtual callbacks that do
// nothing here.

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "mpegcore/BAT.h"
#include "mpegcore/BaseMpegProgram.h"
#include "mpegcore/BasePID.h"
#include "mpegcore/CAT.h"
#include "mpegcore/EIT.h"
#include "mpegcore/MpegConstants.h"
#include "mpegcore/NIT.h"
#include "mpegcore/PAT.h"
#include "mpegcore/PMT.h"
#include "mpegcore/SDT.h"
#include "mpegcore/TDT.h"
#include "mpegcore/TOT.h"
#include "mpegcore/TSDT.h"
#include "mpegcore/VQAlignMemory.h"
#include "mpegcore/VQBSReader.h"
#include "mpegcore/vq_mpeg_alarm_event.h"

namespace mpegcore {

// Two objects of one table type: m_pCurrent receives the next read,
// m_pLast is the last table that read correctly. changeCount, when given, is
// incremented whenever m_pLast or the validity changes (the parser's PID
// routes depend on its PAT, CAT and PMT wrappers).
template <class T>
class CPacketWrapper {
public:
    explicit CPacketWrapper(unsigned long bufferSize, uint64_t* changeCount = nullptr)
        : m_pCurrent(new T(nullptr, bufferSize)), m_pLast(new T(nullptr, bufferSize)), m_pChangeCount(changeCount) {}

    // Reads into m_pCurrent; on success the two swap, the older one is
    // cleared for the next read, and the wrapper becomes valid.
    bool Parser(VQSDK::VQBSReaderT<unsigned char*>& reader) {
        if (!m_pCurrent->read(reader))
            return false;
        std::swap(m_pCurrent, m_pLast);
        m_pCurrent->Clear();
        m_IsValid = 1;
        changed();
        return true;
    }
    // Appends raw section bytes to the table being filled.
    BOOL AddData(const unsigned char* data, unsigned long size) { return m_pCurrent->AddData(data, size); }
    // Makes a copy of table the last valid one.
    void set(const T& table) {
        m_pLast->Clear();
        table.copyTo(m_pLast.get());
        m_IsValid = 1;
        changed();
    }
    BOOL IsValid() const { return m_IsValid; }
    void Clear() {
        m_pCurrent->Clear();
        m_pLast->Clear();
        m_IsValid = 0;
        changed();
    }

    BOOL m_IsValid = 0;
    std::unique_ptr<T> m_pCurrent;
    std::unique_ptr<T> m_pLast;

private:
    void changed() {
        if (m_pChangeCount)
            ++*m_pChangeCount;
    }

    uint64_t* m_pChangeCount;
};

// PMT wrappers by PMT PID.
using CMapPMT = std::map<uint16_t, std::shared_ptr<CPacketWrapper<CPMT>>>;

class CBaseMpegParser : public vq_mpeg_alarm_event {
public:
    static constexpr size_t pid_count = kPidCount;

    // useTail: keep the bytes of an incomplete packet for the next call.
    explicit CBaseMpegParser(bool useTail);
    ~CBaseMpegParser() override;

    CBaseMpegParser(const CBaseMpegParser&) = delete;
    CBaseMpegParser& operator=(const CBaseMpegParser&) = delete;

    // Parses every whole packet; returns the bytes consumed (counted in the
    // tail and the new data together when a tail was held).
    unsigned long Process(unsigned char* data, unsigned long size);
    // Drops the PMTs that newPAT no longer lists, with their PID states.
    // The caller holds m_cs.
    void ClearPMT(const CPAT& newPAT);
    // Reports scrambled (control 1) and errored packets; offered to derived classes.
    void analyze_packet(transport_packet& packet);
    // Accepts anything: PES headers are not parsed.
    bool ParcerPESPacket(unsigned char* data);

    virtual void Clear();
    virtual int OnPreProcess(unsigned int, const transport_packet&) { return 0; }
    virtual int OnProcess(unsigned int, transport_packet&) { return 0; }
    virtual void OnPAT(CPAT*) {}
    virtual void OnPMT(CBaseMpegProgram*, CPMT*) {}
    virtual void OnCAT(CCAT*) {}
    virtual void OnTSDT(CTSDT*) {}
    virtual void OnSDT(CSDT*) {}
    virtual void OnEIT(CEIT*) {}
    virtual void OnNIT(CNIT*) {}
    virtual void OnTDT(CTDT*) {}
    virtual void OnTOT(CTOT*) {}
    virtual void OnPES(unsigned short /*pmtPid*/, const CBaseStreamTypeMap*, transport_packet*) {}
    virtual void OnPES(unsigned short /*pmtPid*/, CBaseStreamTypeMap*, unsigned char* /*data*/,
                       unsigned long /*size*/) {}
    virtual void OnPES(unsigned short /*pmtPid*/, unsigned short /*programNumber*/, const CBaseStreamTypeMap*,
                       transport_packet*) {}
    virtual void OnPCR(transport_packet*) {}
    virtual void OnEMM(transport_packet*) {}
    virtual void OnECM(transport_packet*) {}
    virtual void OnBAT(CBAT*) {}
    virtual void OnNULL(transport_packet*) {}
    virtual void onOtherPid(transport_packet*) {}

    // How each PID is reported is worked out once from the last PAT, CAT and
    // PMTs and kept until one of their wrappers changes (Parser, set, Clear,
    // or the parser adding or dropping a PMT). Change those tables through the
    // wrappers, or inside the table callbacks (OnPAT, OnPMT, OnCAT), which run
    // before any PID is worked out again: a table edited in place at any
    // other time is not followed, and entries removed that way may still be
    // referred to.
    CPacketWrapper<CPAT> m_PAT;
    CPacketWrapper<CCAT> m_CAT;
    CPacketWrapper<CTSDT> m_TSDT;
    CPacketWrapper<CEIT> m_EIT_Actual;
    CPacketWrapper<CEIT> m_EIT_Other;
    CPacketWrapper<CEIT> m_EIT_Actual_Shedule;
    CPacketWrapper<CEIT> m_EIT_Other_Shedule;
    CPacketWrapper<CSDT> m_SDT_Actual;
    CPacketWrapper<CSDT> m_SDT_Other;
    CPacketWrapper<CBAT> m_BAT;
    CPacketWrapper<CNIT> m_NIT_Actual;
    CPacketWrapper<CNIT> m_NIT_Other;
    CPacketWrapper<CTDT> m_TDT;
    CPacketWrapper<CTOT> m_TOT;
    CMapPMT m_MapPMT;
    std::unique_ptr<CBasePID[]> m_pPIDs;
    std::mutex m_cs;
    VQSDK::VQAlignMemory<unsigned char> m_pTailData;
    size_t m_lTailLength = 0;
    bool m_bUseTail;

protected:
    // Everything past the sync byte of one packet; false when the packet is dropped.
    bool ParserData(transport_packet& packet);
    void _clear();

private:
    bool parseAdaptationField(transport_packet& packet);
    // Reads the section collected on pid (past its pointer field) into
    // wrapper; false when fewer than 3 bytes are held or the read fails.
    // The caller holds m_cs.
    template <class T>
    bool parseCollected(uint16_t pid, CPacketWrapper<T>& wrapper);
    // parseCollected and, when the table reads, onTable, all under m_cs.
    template <class T, class Report>
    void readSection(const transport_packet& packet, CPacketWrapper<T>& wrapper, Report onTable);
    // How the packets of one PID are reported once a PAT is known: worked out
    // from the last PAT, PMTs and CAT the first time the PID is seen, and again
    // after any of those tables changed, instead of searching them per packet.
    struct pid_route {
        // A PMT that names the PID, in ascending order of PMT PID.
        struct pmt_use {
            enum kind_t : uint8_t { elementary, pcr, ecm };
            kind_t kind;
            uint16_t pmtPid;
            CPMT* pmt;
            CBaseStreamTypeMap* stream;  // elementary only
            unsigned caDescriptors;      // ecm only: program CA descriptors naming the PID
        };
        uint64_t generation = 0;              // m_nRouteGeneration when worked out; 0 never
        CBaseMpegProgram* program = nullptr;  // the PID carries this program's PMT
        std::vector<pmt_use> pmtUses;
        unsigned emmDescriptors = 0;  // CA descriptors of the CAT naming the PID
    };
    const pid_route& routeOf(uint16_t pid);
    const pid_route& buildRoute(uint16_t pid);
    void routeSectionPid(const transport_packet& packet);
    void routeOtherPid(transport_packet& packet, CDataAccumulator* completed);
    void reportPmtUse(const pid_route::pmt_use& use, transport_packet& packet, CDataAccumulator* completed);
    void readPMT(const transport_packet& packet, CBaseMpegProgram& program);
    // Stores the bytes from `from` as the tail, growing the block if needed.
    void keepTail(const unsigned char* from, size_t size);

    // The routes of the PIDs seen since a PAT, by slot (kept in a deque, so a
    // route stays where it is while callbacks run); m_routeSlot maps a PID to
    // its slot + 1, 0 for none, and is sized on first use.
    std::deque<pid_route> m_routes;
    std::vector<uint16_t> m_routeSlot;
    uint64_t m_nRouteGeneration = 1;  // grows with every change of the PAT, the PMTs or the CAT
    transport_packet m_packet;        // the record Process fills for each packet
    bool m_bAfDirty = false;          // m_packet.af may hold a parsed adaptation field
    bool m_bInProcess = false;
};

}  // namespace mpegcore
