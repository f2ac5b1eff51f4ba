# Which tests `make test` runs (short), which `make test-long` (long), and which have only targets of their own (separate):
# each test has one of these labels. `make test` is to end within ten minutes on two cores, with one interpreter of each
# version; `make test-long` has the rest of what is tried for every change.
#
# A row: label, pattern of test names. The first pattern that fits decides; tests/python/test_entries.py checks the outcome.

# What a debugger is least allowed to get wrong, and where versions of Python differ most.
set(brixdebug_core "test_(stops|threads|locks|switching|adapter_launch)")
# Other people's programs, CPython's own tests, and adapter sessions that wait for processes to time out or to die.
set(brixdebug_slow "run_cpython_tests|test_(other_tools|pytest|adapter_(children|gone|process_faults|strangers))")

# FIRST, NEWEST: the oldest and the newest release build with sys.monitoring.
function(label_tests first newest)
  string(REPLACE "." "\\." first "${first}")
  string(REPLACE "." "\\." newest "${newest}")
  set(rows
      # Minutes an interpreter: `make inject`, `make test-life` and `make test-adapter` run them in all.
      "long|^(inject|life|adapter)_${first}[.]"
      "separate|^(inject|life|adapter)_"
      # Instructions under a simulator, and long real programs.
      "long|[.]test_(event_budgets|first_event_cost|event_cost|example_host)$"
      # Builds and installs the package; for other machines with `make wheels`, as these are not everywhere.
      "separate|^package_wheels$"
      "long|^package_"
      # The debugger: nearly all of it in one version, the core in the others. What the adapter's sessions said is checked
      # after most of them.
      "long|^brixdebug_any[.]"
      "long|^brixdebug_.*[.](${brixdebug_slow})$"
      "short|^brixdebug_.*[.]${brixdebug_core}$"
      "short|^brixdebug_${newest}[.]"
      "long|^brixdebug_"
      # The debugger without the interpreter's lock: its core, and its forks.
      "short|^free_.*[.]test_(fork|free_threads|threads)$"
      "long|^free_"
      "short|.")
  get_property(tests DIRECTORY PROPERTY TESTS)
  foreach(test IN LISTS tests)
    foreach(row IN LISTS rows)
      string(REGEX MATCH "^([a-z]+)[|](.*)$" row "${row}")
      set(label ${CMAKE_MATCH_1})
      if(test MATCHES "${CMAKE_MATCH_2}")
        set_tests_properties(${test} PROPERTIES LABELS ${label})
        break()
      endif()
    endforeach()
  endforeach()
endfunction()
