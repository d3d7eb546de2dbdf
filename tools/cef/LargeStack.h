// Running work on a thread with a stack of a chosen size.
//
// The system's bencode classes follow nested containers by recursion, in parsing, writing and destruction
// alike, and a file may nest millions of levels deep. cef runs such work on a thread whose stack is sized for
// the deepest nesting the input can hold, so a deep file is read rather than overflowing the stack.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

namespace cef {

// Stack bytes that the bencode classes and cef may need to follow containers nested `depth` levels deep.
size_t StackForDepth(size_t depth);

// The deepest nesting that `bytes` can hold when parsed: every level opens with an 'l' or a 'd'.
size_t DepthBound(std::string_view bytes);

// Runs `work` on a thread with a stack of at least `stackBytes` and returns its result. When no such thread
// can be made, returns `fallback` without running `work`. `work` must not throw.
int RunWithStack(size_t stackBytes, const std::function<int()>& work, int fallback);

}  // namespace cef
