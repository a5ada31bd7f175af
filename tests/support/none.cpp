// Keeps the support library non-empty.
