package quorra.repohandler;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.FileTime;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import org.junit.jupiter.api.DisplayName;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Every native reaches its C function and hands back the right Java value. */
class RepositoryHandlerBaseTest {
    private final RepositoryHandlerBase handler = new RepositoryHandlerBase();

    @TempDir
    Path dir;

    @Test
    @DisplayName("a created location is found again by both look-ups and removed by the removals")
    void createFindRemove() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        ResourceLocationResult created = handler.createLocationNative(repo.path(), "study1", false, 0);
        assertNotNull(created);
        assertTrue(created.getPath().startsWith(repo.mount("m1") + "/"), created.getPath());
        assertTrue(created.getPath().endsWith("/study1"), created.getPath());
        assertEquals(0, created.getStatus());
        assertEquals(0, created.getSecondStatus(), "a new resource did not exist before");
        ScratchRepository.fill(created.getPath());

        ResourceLocationResult again = handler.createLocationNative(repo.path(), "study1", false, 0);
        assertEquals(created.getPath(), again.getPath());
        assertEquals(1, again.getSecondStatus(), "the second creation finds the existing one");

        ResourceLocationResult found =
                handler.getLocationNative(repo.path(), "study1", false, true, false, false, 0);
        assertEquals(created.getPath(), found.getPath());
        assertEquals(0, found.getStatus());
        ResourceLocationResult onMount =
                handler.getLocationOnMountNative(repo.path(), "study1", "m1", true, false, 0);
        assertEquals(created.getPath(), onMount.getPath());
        assertEquals(0, handler.checkResourceStatusNative(repo.path(), "study1", 0));

        assertEquals(4, handler.removeResourceOnMountNative(repo.path(), "study1", "m2", true, false, 0));
        assertTrue(Files.isDirectory(Path.of(created.getPath())));
        assertEquals(0, handler.removeResourceOnMountNative(repo.path(), "study1", "m1", true, false, 0));
        assertFalse(Files.exists(Path.of(created.getPath())));

        ScratchRepository.fill(handler.createLocationNative(repo.path(), "study2", false, 0).getPath());
        assertEquals(0, handler.removeResourceNative(repo.path(), "study2", true, false, 0));
        assertEquals(4, handler.removeResourceNative(repo.path(), "study2", true, false, 0));
        assertEquals(4, handler.checkResourceStatusNative(repo.path(), "study2", 0));
    }

    @Test
    @DisplayName("createDirectory answers the created directory, then the existing one with second status 1")
    void createDirectory() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        ResourceLocationResult first =
                handler.createDirectoryNative(repo.path(), "series9", false, false, false, 0);
        assertNotNull(first);
        assertNotNull(first.getPath());
        assertTrue(first.getPath().startsWith(repo.mount("m1") + "/"), first.getPath());
        assertEquals(0, first.getSecondStatus());
        ScratchRepository.fill(first.getPath());
        ResourceLocationResult second =
                handler.createDirectoryNative(repo.path(), "series9", false, false, false, 0);
        assertEquals(first.getPath(), second.getPath());
        assertEquals(1, second.getSecondStatus());
    }

    @Test
    @DisplayName("the second integer of both look-ups is 1 whatever the status")
    void lookupsCarryOne() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        ScratchRepository.fill(handler.createLocationNative(repo.path(), "here", false, 0).getPath());

        ResourceLocationResult[] results = {
            handler.getLocationNative(repo.path(), "here", true, true, false, false, 0),
            handler.getLocationNative(repo.path(), "absent", false, true, false, false, 0),
            handler.getLocationNative(repo.path(), "here", false, false, false, true, 0),
            handler.getLocationOnMountNative(repo.path(), "here", "m1", false, false, 0),
            handler.getLocationOnMountNative(repo.path(), "here", "m2", false, false, 0),
            handler.getLocationOnMountNative(repo.path(), "here", "nosuchmount", false, false, 0),
        };
        int[] statuses = {0, 4, 36, 0, 36, 4};
        for (int i = 0; i < results.length; ++i) {
            assertNotNull(results[i], "call " + i);
            assertEquals(statuses[i], results[i].getStatus(), "status of call " + i);
            assertEquals(1, results[i].getSecondStatus(), "second integer of call " + i);
            assertEquals(statuses[i] == 0, results[i].getPath() != null, "path of call " + i);
        }
    }

    @Test
    @DisplayName("look-ups from many threads at once each get the right location")
    void concurrentLookups() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        String[] names = {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7"};
        String[] locations = new String[names.length];
        for (int i = 0; i < names.length; ++i) {
            locations[i] = handler.createLocationNative(repo.path(), names[i], false, 0).getPath();
            ScratchRepository.fill(locations[i]);
        }
        ExecutorService pool = Executors.newFixedThreadPool(names.length);
        try {
            List<Future<Integer>> done = new ArrayList<>();
            for (int i = 0; i < names.length; ++i) {
                int n = i;
                done.add(pool.submit(() -> {
                    int wrong = 0;
                    for (int k = 0; k < 500; ++k) {
                        ResourceLocationResult r = handler.getLocationNative(
                                repo.path(), names[n], false, true, false, false, 0);
                        if (!locations[n].equals(r.getPath()) || r.getSecondStatus() != 1) ++wrong;
                    }
                    return wrong;
                }));
            }
            for (Future<Integer> f : done) assertEquals(0, f.get());
        } finally {
            pool.shutdownNow();
        }
    }

    @Test
    @DisplayName("repository status is 0 for a healthy repository and 256 for a missing one")
    void repositoryStatus() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        // The mounts are plain folders on the machine's own disk: limits no disk reaches keep
        // the answer independent of how full that disk happens to be.
        Files.writeString(dir.resolve("repository.cfg"),
                "remindLimit=0\nwarnLimit=0\nwarn2Limit=0\nwarn3Limit=0\nswitchLimit=101\n"
                        + "fullLimit=101\ncleanLimit=101\nmoveLimit=101\nhardFullLimit=101\n",
                StandardOpenOption.APPEND);
        assertEquals(0, handler.getRepositoryStatusNative(repo.path(), 0));
        assertEquals(256, handler.getRepositoryStatusNative(dir.resolve("gone").toString(), 0));
    }

    @Test
    @DisplayName("time properties cross as seconds, access time first, and read back as set")
    void timeProperties() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        String location = handler.createLocationNative(repo.path(), "timed", false, 0).getPath();
        ScratchRepository.fill(location);
        long[] times = {1_000_000_000L, 1_100_000_000L};
        handler.setTimePropertiesNative(repo.path(), "timed", times, 0);
        assertEquals(FileTime.fromMillis(1_100_000_000_000L), Files.getLastModifiedTime(Path.of(location)));
        assertArrayEquals(times, handler.getTimePropertiesNative(repo.path(), "timed", 0));
        assertNull(handler.getTimePropertiesNative(repo.path(), "absent", 0));
    }

    @Test
    @DisplayName("the dirty flag and the explicit lock reach the repository")
    void dirtyFlagAndLocks() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        assertEquals(0, handler.isDirtyNative(repo.path(), "study1", 0));
        handler.setDirtyNative(repo.path(), "study1", true, 0);
        assertEquals(1, handler.isDirtyNative(repo.path(), "study1", 0));
        assertTrue(Files.readString(dir.resolve(".dirty")).contains("study1"));
        handler.setDirtyNative(repo.path(), "study1", false, 0);
        assertEquals(0, handler.isDirtyNative(repo.path(), "study1", 0));

        // A lock that was not given back would make the second lock wait and fail.
        assertEquals(1, handler.lockResourceNative(repo.path(), "study1", 0));
        assertEquals(1, handler.unlockResourceNative(repo.path(), "study1", 0));
        assertEquals(1, handler.lockResourceNative(repo.path(), "study1", 0));
        assertEquals(1, handler.unlockResourceNative(repo.path(), "study1", 0));
    }

    @Test
    @DisplayName("listings become String arrays and the mount path a String")
    void listingsAndMountPath() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        assertArrayEquals(new String[0], handler.listDirsNative(repo.path(), false, 0));
        for (String name : new String[] {"b-study", "a-study", "c-study"}) {
            ScratchRepository.fill(handler.createLocationNative(repo.path(), name, false, 0).getPath());
        }
        String loose = handler.createLocationNative(repo.path(), "loose.txt", false, 0).getPath();
        Files.writeString(Path.of(loose), "not a directory");

        assertArrayEquals(new String[] {"a-study", "b-study", "c-study"},
                handler.listDirsNative(repo.path(), false, 0));
        assertArrayEquals(new String[] {"loose.txt"}, handler.listFilesNative(repo.path(), false, 0));
        assertEquals(repo.mount("m1"), handler.getMountPathNative(repo.path(), "b-study", 0));
        assertNull(handler.getMountPathNative(repo.path(), "absent", 0));
    }

    @Test
    @DisplayName("a long listing keeps every name")
    void longListing() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        int count = 300;
        for (int i = 0; i < count; ++i) {
            ScratchRepository.fill(
                    handler.createLocationNative(repo.path(), String.format("s%04d", i), false, 0).getPath());
        }
        String[] names = handler.listDirsNative(repo.path(), false, 0);
        assertEquals(count, names.length);
        assertEquals("s0000", names[0]);
        assertEquals("s0299", names[count - 1]);
    }

    @Test
    @DisplayName("unAge moves a resource onto the fast mount and answers its new location")
    void unAge() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir, "", "type=fast\n");
        String old = handler.createLocationNative(repo.path(), "aged", false, 0).getPath();
        assertTrue(old.startsWith(repo.mount("m1") + "/"), old);
        ScratchRepository.fill(old);

        String moved = handler.unAgeNative(repo.path(), "aged", 0);
        assertNotNull(moved);
        assertTrue(moved.startsWith(repo.mount("m2") + "/"), moved);
        assertEquals("pixel data", Files.readString(Path.of(moved, "object.dcm")));
        assertFalse(Files.exists(Path.of(old)));
        assertNull(handler.unAgeNative(repo.path(), "aged", 0), "already on the fast mount");
    }

    @Test
    @DisplayName("normalizeFileName folds dots and double slashes without touching the disk")
    void normalizeFileName() {
        assertEquals("/", handler.normalizeFileNameNative("/a/./b/../../.."));
        assertEquals("/a/b", handler.normalizeFileNameNative("/a//b/"));
        assertEquals("/no/such/dir", handler.normalizeFileNameNative("/no/such/./x/../dir"));
    }
}
