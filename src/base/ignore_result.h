// The one way to drop a result on purpose: ignore_result(call(...)). Use it
// only where no failure could be acted on (a best-effort write, a read whose
// short result leaves a zeroed buffer), and say why beside the call. A cast
// to void does not silence warn_unused_result under GCC; this does, and it
// marks the place for readers.
#pragma once

template <typename T>
inline void ignore_result(const T&)
{
}
