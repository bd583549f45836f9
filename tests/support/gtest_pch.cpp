// Holds only the precompiled GoogleTest headers.
