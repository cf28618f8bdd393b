#pragma once
// The alarm record, alarm codes and severity levels shared with alarm managers.

#include <cstdint>
#include <string>

// Codes are shared with other components; the manager interprets them, so the
// values are fixed.
enum VQAlarmCode : int32_t {
    eAlarmUnknownCode = 0,
    eAlarmGraphState = 10,
    eAlarmGraphNone = 11,
    eAlarmGraphStopped = 12,
    eAlarmGraphError = 13,
    eAlarmHugeCPU = 22,
    eAlarmHugeMemory = 23,
    eAlarmNoSysMemory = 24,
    eAlarmGraphStateLast = 25,
    eAlarmRemuxerBase = 100,
    eAlarmRemuxerNoInputData = 101,
    eAlarmRemuxerPMT = 103,
    eAlarmRemuxerSDT = 104,
    eAlarmRemuxerEIT = 105,
    eAlarmRemuxerNoInputTDT = 106,
    eAlarmRemuxerNoInputTOT = 107,
    eAlarmRemuxerOutputBuferOverflow = 110,
    eAlarmRemuxerStream = 111,
    eAlarmRemuxerInputCC = 112,
    eAlarmRemuxerInputTEI = 113,
    eAlarmRemuxerInputScrambler = 114,
    eAlarmRemuxerStreamEmpty = 116,
    eAlarmRemuxerOutputUnderflow = 120,
    eAlarmRemuxerOutputReset = 121,
    eAlarmRemuxerOutputOverflow = 122,
    eAlarmRemuxerServiceStateIsReserve = 131,
    eAlarmRemuxerServiceStateIsGOiCHS = 132,
    eAlarmSplicerBase = 200,
    eAlarmRenderBase = 300,
    eAlarmRenderNoVideoInputData = 301,
    eAlarmRenderNoAudioInputData = 302,
    eAlarmRenderNoTeletextInputData = 303,
    eAlarmRenderNoVBIInputData = 304,
    eAlarmRenderOutputRestart = 305,
    eAlarmRenderOutputRepeat = 306,
    eAlarmCaptureBase = 400,
    eAlarmCaptureNoVideoInputData = 401,
    eAlarmCaptureNoAudioInputData = 402,
    eAlarmCaptureNoTeletextInputData = 403,
    eAlarmCaptureNoVBIInputData = 404,
    eAlarmCaptureInputSyncLost = 405,
    eAlarmCaptureInputRepeat = 406,
    eAlarmCaptureInputDrop = 407,
    eAlarmASIInputBase = 500,
    eAlarmASIInputSyncLost = 501,
    eAlarmASIInputRawNoInputData = 502,
    eAlarmASIInputNoInputData = 503,
    eAlarmDeviceBase = 550,
    eAlarmDeviceErrorOnInit = 551,
    eAlarmGPIBase = 600,
    eAlarmGPINotFound = 601,
    eAlarmIPInOutBase = 700,
    eAlarmIPInputLinkDown = 701,
    eAlarmIPOutputLinkDown = 702,
    eAlarmLastCode = 999,
};

enum VQAlarmLevel : int32_t {
    vq_info_alarm = 0,
    vq_warning_alarm = 1,
    vq_error_alarm = 2,
};

struct vq_alarm_data {
    std::string hash;
    VQAlarmCode code = eAlarmUnknownCode;
    bool active = false;
    VQAlarmLevel level = vq_info_alarm;
    std::string source;
    // When the alarm last became active, "dd.MM.yyyy hh:mm:ss" UTC; empty until then.
    std::string reg_time;
    // Part of the record for managers; never filled here.
    std::string last_time;
    std::string description;
    uint32_t count = 0;
    uint32_t stream_type = 0;
    uint32_t stream_pid = 0;
};
