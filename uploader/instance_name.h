// The name that lets only one copy run.
#pragma once

namespace kyd {

// Known to the installer and to other components of the product.
inline constexpr wchar_t kInstanceName[] = L"VeltraneKydLogUploaderMutexString";

}  // namespace kyd
