#pragma once
// Fixed numbers of MPEG-2 transport streams (ISO/IEC 13818-1) and DVB SI
// (ETSI EN 300 468): packet layout, reserved PIDs and table ids.

#include <cstddef>
#include <cstdint>

namespace mpegcore {

// Packets.
constexpr uint8_t kSyncByte = 0x47;
constexpr size_t kTsPacketSize = 188;
constexpr size_t kRsPacketSize = 204;                         // 188 plus 16 Reed-Solomon parity bytes
constexpr size_t kTsPacketSizeAfterSync = kTsPacketSize - 1;  // what follows the sync byte

// PIDs: 13 bits.
constexpr size_t kPidCount = 8192;
constexpr uint16_t kPidPAT = 0x0000;
constexpr uint16_t kPidCAT = 0x0001;
constexpr uint16_t kPidTSDT = 0x0002;
constexpr uint16_t kPidNIT = 0x0010;
constexpr uint16_t kPidSDT = 0x0011;  // SDT and BAT
constexpr uint16_t kPidEIT = 0x0012;
constexpr uint16_t kPidRST = 0x0013;
constexpr uint16_t kPidTDT = 0x0014;  // TDT and TOT
constexpr uint16_t kPidNull = 0x1FFF;

// Table ids.
constexpr uint8_t kTableIdPAT = 0x00;
constexpr uint8_t kTableIdCAT = 0x01;
constexpr uint8_t kTableIdPMT = 0x02;
constexpr uint8_t kTableIdTSDT = 0x03;
constexpr uint8_t kTableIdNITActual = 0x40;
constexpr uint8_t kTableIdNITOther = 0x41;
constexpr uint8_t kTableIdSDTActual = 0x42;
constexpr uint8_t kTableIdSDTOther = 0x46;
constexpr uint8_t kTableIdBAT = 0x4A;
constexpr uint8_t kTableIdEITActual = 0x4E;  // present/following
constexpr uint8_t kTableIdEITOther = 0x4F;   // present/following
constexpr uint8_t kTableIdEITActualScheduleFirst = 0x50;
constexpr uint8_t kTableIdEITActualScheduleLast = 0x5F;
constexpr uint8_t kTableIdEITOtherScheduleFirst = 0x60;
constexpr uint8_t kTableIdEITOtherScheduleLast = 0x6F;
constexpr uint8_t kTableIdTDT = 0x70;
constexpr uint8_t kTableIdRST = 0x71;
constexpr uint8_t kTableIdST = 0x72;
constexpr uint8_t kTableIdTOT = 0x73;

}  // namespace mpegcore
