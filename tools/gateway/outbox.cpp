// outbox.cpp
