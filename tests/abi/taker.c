/* taker.c - takes 64 bytes of the static thread-local storage. */
__attribute__((tls_model("initial-exec"), visibility("default"))) __thread char taken[64] = {1};

__attribute__((visibility("default"))) char* take(void) { return taken; }
