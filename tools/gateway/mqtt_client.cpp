// mqtt_client.cpp
