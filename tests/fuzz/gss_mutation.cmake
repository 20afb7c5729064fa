# Mutated NTLM and Negotiate messages into the real mechanisms. Long runs: gss_mutation.py.
add_executable(gss_mutation fuzz/gss_mutation.cpp)
target_link_libraries(gss_mutation PRIVATE project_options velder)
find_program(SYSTEM_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
add_test(NAME fuzz.gss_mutation
         COMMAND ${SYSTEM_PYTHON} -B ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/gss_mutation.py $<TARGET_FILE:gss_mutation> --count 4000)
set_tests_properties(fuzz.gss_mutation PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
