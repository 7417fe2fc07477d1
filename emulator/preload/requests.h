// Requests in the shared memory of an opening: taking, filling, calling and freeing them.
//
// Any thread, several processes at once, and signal handlers.
#pragma once

#include "preload.h"

// A free request with zeroes, or null if all are used.
struct opening_request* take_request(struct opening_memory* memory);

// Give the request room for data. False if the memory is used up.
bool take_room(struct opening_memory* memory, struct opening_request* request, uint32_t length);
uint8_t* room_of(struct opening_memory* memory, const struct opening_request* request);

void free_request(struct opening_memory* memory, struct opening_request* request);

// Pass the request on to the launcher.
void post_request(struct opening_memory* memory, struct opening_request* request);

// Wait until a posted call or transfer is answered. `timeout_ms` 0: as long as it takes. Returns 0, ETIMEDOUT, EINTR if
// `interruptible`, or ENODEV if the launcher is gone.
int await_request(struct opening_memory* memory, struct opening_request* request, uint32_t timeout_ms,
                  bool interruptible);

// Post a call, wait and free the request. Returns 0 or a negative errno.
int call_launcher(struct opening_memory* memory, struct opening_request* request);

// The same for a call with two arguments. -ENOMEM if all requests are used.
int call_with(struct opening_memory* memory, enum opening_operation operation, uint32_t argument,
              uint64_t value);

// Remove the oldest completed URB; null if there is none.
struct opening_request* take_completed(struct opening_memory* memory, int descriptor);

// Wait until `completed` is no longer `seen`. Returns 0 or EINTR.
int await_completion(struct opening_memory* memory, uint32_t seen);
