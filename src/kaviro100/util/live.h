// Handles the library has handed out and not yet freed (environments and models). Every C entry
// point checks its handle here before touching it, so that a call with a freed or foreign handle
// fails with an error code instead of reading freed memory.
#pragma once

namespace kvr {

void register_handle(const void *handle);
void unregister_handle(const void *handle);
bool is_live(const void *handle);

// Text of KVRgetmerrormsg / KVRgeterrormsg for a handle that is not live.
constexpr const char *kNotLiveMessage =
    "Invalid handle: it was freed, or it was never created by this library";

// The code an entry point returns for a handle: NULL_ARGUMENT for a null handle,
// INVALID_ARGUMENT for one that is not live, 0 when it may be used.
int handle_status(const void *handle);

}  // namespace kvr
