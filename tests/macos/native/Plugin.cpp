// Something to load and to unload.
extern "C" int kesNativePlugin();
extern "C" int kesNativePlugin() { return 1; }
