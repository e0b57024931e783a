// Keeps the reader library non-empty while its modules are being written.
