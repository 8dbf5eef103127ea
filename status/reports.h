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

// For a terminal and for a monitoring system, which shows the first line.
[[nodiscard]] std::wstring TextReport(const Survey& survey, const Verdict& verdict);

// For machines: one JSON object (RFC 8259), UTF-8.
[[nodiscard]] std::string JsonReport(const Survey& survey, const Verdict& verdict);

// For people: a self-contained page, UTF-8, well-formed as XML too.
[[nodiscard]] std::string HtmlReport(const Survey& survey, const Verdict& verdict);

// For Prometheus: gauges in a text that is valid both in its own format and in OpenMetrics, UTF-8.
[[nodiscard]] std::string MetricsReport(const Survey& survey, bool per_account);

}  // namespace kyd
