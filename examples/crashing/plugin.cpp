// The shared library that missing_library links against and never finds.
int pluginVersion() {
    return 1;
}
