// The tests share precompiled headers; the build makes them along with some source, this one.
