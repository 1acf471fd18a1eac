package quorra.repohandler;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/**
 * A repository in a test's temporary directory: repository.cfg naming the mounts m1 and m2
 * (plain directories, each with its repositorypart.cfg) and isShared=false, so that resource
 * locks are lock files under LOCK_VAR and no database is needed.
 */
final class ScratchRepository {
    final Path root;

    private ScratchRepository(Path root) {
        this.root = root;
    }

    /** m1 and m2 with empty repositorypart.cfg files (all limits from the repository). */
    static ScratchRepository create(Path dir) throws IOException {
        return create(dir, "", "");
    }

    /** The mounts' repositorypart.cfg contents, m1 first. */
    static ScratchRepository create(Path dir, String m1Config, String m2Config) throws IOException {
        Path lockDir = Path.of(System.getenv("LOCK_VAR"));
        Files.createDirectories(lockDir);
        Files.writeString(dir.resolve("repository.cfg"), "mountPoints=m1\\m2\nisShared=false\n");
        Files.createDirectories(dir.resolve("m1"));
        Files.createDirectories(dir.resolve("m2"));
        Files.writeString(dir.resolve("m1/repositorypart.cfg"), m1Config);
        Files.writeString(dir.resolve("m2/repositorypart.cfg"), m2Config);
        return new ScratchRepository(dir);
    }

    String path() {
        return root.toString();
    }

    String mount(String name) {
        return root.resolve(name).toString();
    }

    /** Makes the resource's directory at location with one file in it, as a server would. */
    static void fill(String location) throws IOException {
        Path dir = Path.of(location);
        Files.createDirectories(dir);
        Files.writeString(dir.resolve("object.dcm"), "pixel data");
    }
}
