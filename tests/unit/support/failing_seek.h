// A file pointer that cannot be moved.
#pragma once

#include <functional>

namespace kyd_test {

// Runs a function during which every seek fails.
void RunWithoutSeeking(const std::function<void()>& function);

}  // namespace kyd_test
