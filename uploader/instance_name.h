// The name that ensures that only one copy runs.
#pragma once

namespace kyd {

// Known to the installer and to other components of the product.
inline constexpr wchar_t kInstanceName[] = L"VeltraneKydLogUploaderMutexString";

}  // namespace kyd
