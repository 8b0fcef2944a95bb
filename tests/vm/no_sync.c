/* Preloaded into the services to see that the power cuts notice it: nothing is flushed to the disk on
 * purpose. */

int fsync(int fd) {
    (void)fd;
    return 0;
}

int fdatasync(int fd) {
    (void)fd;
    return 0;
}
