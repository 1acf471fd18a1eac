package quorra.repohandler;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/**
 * The syslog messages of this JVM and its child JVMs, as recorded by the preloaded
 * SyslogToFile library in the file named by RH_SYSLOG_FILE. Reads only what was written after
 * this object was made, so each test sees its own messages.
 */
final class CapturedSyslog {
    static final int LOG_ERR = 3;

    record Line(String ident, int facility, int level, String text) {}

    private final Path file;
    private final long start;

    CapturedSyslog() throws IOException {
        String name = System.getenv("RH_SYSLOG_FILE");
        if (name == null || System.getenv("LD_PRELOAD") == null) {
            throw new IllegalStateException("run under the syslog capture: LD_PRELOAD and RH_SYSLOG_FILE");
        }
        file = Path.of(name);
        start = Files.exists(file) ? Files.size(file) : 0;
    }

    List<Line> lines() throws IOException {
        List<Line> result = new ArrayList<>();
        if (!Files.exists(file)) return result;
        byte[] all = Files.readAllBytes(file);
        String text = new String(all, (int) start, all.length - (int) start, StandardCharsets.UTF_8);
        for (String row : text.split("\n")) {
            String[] field = row.split("\t", 4);
            if (field.length == 4) {
                result.add(new Line(field[0], Integer.parseInt(field[1]), Integer.parseInt(field[2]),
                        field[3]));
            }
        }
        return result;
    }

    /** Number of error lines of the library's logger whose text is exactly {@code text}. */
    long errorsEqualTo(String text) throws IOException {
        return lines().stream()
                .filter(l -> l.ident().equals("KSRepositoryHandler") && l.level() == LOG_ERR
                        && l.text().equals(text))
                .count();
    }

    String dump() throws IOException {
        StringBuilder out = new StringBuilder();
        for (Line l : lines()) out.append(l).append('\n');
        return out.toString();
    }
}
