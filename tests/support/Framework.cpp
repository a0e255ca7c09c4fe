// The test framework has headers and libraries; this file has them precompiled.
