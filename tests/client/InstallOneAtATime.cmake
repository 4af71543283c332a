# Read by ctest: these tests install from the one build folder, which keeps a manifest.
foreach(test ${quorvane_client_tests_TESTS} ${quorvane_tools_tests_TESTS})
  if(test MATCHES "Install")
    set_tests_properties(${test} PROPERTIES RESOURCE_LOCK installation)
  endif()
endforeach()
