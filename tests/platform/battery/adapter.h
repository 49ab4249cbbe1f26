#pragma once

/// What the battery needs from an implementation besides platform/include. Each implementation defines these once.
namespace platform_test {

/// Called before each test: a platform in which no name is taken.
void BeginTest();

/// Called after each test, when every server end is closed: fails the test if anything was left behind.
void EndTest();

/// Removes what stands for the static connection `name`, as a clean-up of the place where names are kept would.
void RemoveName(const char* name);

/// Gives the static connection `name` to another server, until EndTest.
void TakeName(const char* name);

} // namespace platform_test
