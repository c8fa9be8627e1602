// Placeholder for a module with no sources yet.
namespace omsdk { [[maybe_unused]] static int module_placeholder; }
