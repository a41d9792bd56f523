// The programs' names, as their messages, usage texts and outputs give them.
#pragma once

namespace kestro::zqp::base {

inline constexpr char kMonitorProgram[] = "kvt_zqp_monitor";
inline constexpr char kRecordProgram[] = "kvt_zqp_record";
inline constexpr char kCaptureProgram[] = "kvt_zqp_capture";

}  // namespace kestro::zqp::base
