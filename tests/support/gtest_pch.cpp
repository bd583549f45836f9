// Carries the precompiled GoogleTest headers; nothing else.
