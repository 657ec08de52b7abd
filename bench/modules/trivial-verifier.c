/* A verifier that costs nothing: what is left of a run is the service's own work. */
int verifyFile(void* reserved, const char* path, const char* caller);

int verifyFile(void* reserved, const char* path, const char* caller)
{
    (void)reserved;
    (void)path;
    (void)caller;
    return 1;
}
