// Test-only crash points. The crash-safety tests set GVEX_TEST_STOP_AT to
// "point:n" and the process kills itself (SIGKILL, as a cluster's kill -9
// would) the n-th time it passes that point. Nothing sets it in normal use,
// and no option or output depends on it.
#pragma once

void gvex_test_stop_point(const char* point);
