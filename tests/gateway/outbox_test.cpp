// outbox_test.cpp
