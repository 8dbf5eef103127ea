// The forms of a report.
#pragma once

#include <string>

#include "status/judgement.h"
#include "status/survey.h"

namespace kyd {

// "OK", "WARNING", "CRITICAL", "UNKNOWN".
[[nodiscard]] const wchar_t* StateName(State state) noexcept;

// The same for JSON: "ok" and so on.
[[nodiscard]] std::wstring StateWord(State state);

// For a terminal, and for monitoring systems, which show the first line.
[[nodiscard]] std::wstring TextReport(const Survey& survey, const Verdict& verdict);

// For other programs: one JSON object (RFC 8259), UTF-8.
[[nodiscard]] std::string JsonReport(const Survey& survey, const Verdict& verdict);

// For a browser: a self-contained page, UTF-8, also well-formed XML.
[[nodiscard]] std::string HtmlReport(const Survey& survey, const Verdict& verdict);

// For Prometheus: gauges, valid in both its text format and OpenMetrics, UTF-8.
[[nodiscard]] std::string MetricsReport(const Survey& survey, bool per_account);

}  // namespace kyd
