// A file pointer that cannot be moved.
#pragma once

#include <functional>

namespace kyd_test {

// Runs a function during which no file pointer can be moved.
void RunWithoutSeeking(const std::function<void()>& function);

}  // namespace kyd_test
