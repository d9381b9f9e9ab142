# rtuplc-gateway end to end: each file a test, against its own mosquitto on loopback and
# the simulator. Debian's Python, for its paho-mqtt; no byte code left in the sources.
set(RTUPLC_GATEWAY_PYTHON /usr/bin/python3)
find_program(RTUPLC_MOSQUITTO mosquitto PATHS /usr/sbin NO_DEFAULT_PATH)
if(NOT EXISTS ${RTUPLC_GATEWAY_PYTHON} OR NOT RTUPLC_MOSQUITTO)
  message(STATUS "rtuplc-gateway end-to-end tests need /usr/bin/python3 and mosquitto: not registered")
  return()
endif()

# File, and the time it may take: a broker restart or a reconnection backoff takes
# seconds, and CI runs the suite on two cores next to other tests.
set(gateway_e2e_tests
  test_values 60
  test_writes 60
  test_lifecycle 90
  test_security 60
  test_config 60
  test_web 60
  test_web_browser 120
  test_csv 60
  test_sparkplug 90
  test_sparkplug_host 60
  test_homeassistant 60
)
while(gateway_e2e_tests)
  list(POP_FRONT gateway_e2e_tests test seconds)
  add_test(NAME Gateway.${test}
    COMMAND ${RTUPLC_GATEWAY_PYTHON} -B ${CMAKE_CURRENT_LIST_DIR}/${test}.py)
  set_tests_properties(Gateway.${test} PROPERTIES
    LABELS gateway
    TIMEOUT ${seconds}
    ENVIRONMENT "RTUPLC_GATEWAY=$<TARGET_FILE:rtuplc-gateway>;RTUPLC_SIM=$<TARGET_FILE:rtuplc-sim>;RTUPLC_DRIVER=$<TARGET_FILE:rtuplc>;PYTHONDONTWRITEBYTECODE=1")
endwhile()
