// config.cpp
