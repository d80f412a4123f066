# What `cmake --install` lays down. Filled with the packages.
