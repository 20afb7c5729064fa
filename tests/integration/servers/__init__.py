"""Directory servers for the tests: a real slapd, a real domain controller, and one that imitates what neither of
them does. All run inside the namespaces of the test run and end with it."""
