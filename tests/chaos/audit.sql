-- Records each change within the transaction that makes it.
CREATE TABLE audit (what TEXT NOT NULL);
CREATE TRIGGER a AFTER INSERT ON entries BEGIN INSERT INTO audit VALUES ('+entry ' || new.path); END;
CREATE TRIGGER b AFTER DELETE ON entries BEGIN INSERT INTO audit VALUES ('-entry ' || old.path); END;
CREATE TRIGGER c AFTER UPDATE ON entries BEGIN
    INSERT INTO audit VALUES ('-entry ' || old.path), ('+entry ' || new.path);
END;
CREATE TRIGGER d AFTER INSERT ON pos BEGIN INSERT INTO audit VALUES ('+po ' || new.f9 || '/' || new.f10); END;
CREATE TRIGGER e AFTER DELETE ON pos BEGIN INSERT INTO audit VALUES ('-po ' || old.f9 || '/' || old.f10); END;
CREATE TRIGGER f AFTER INSERT ON images BEGIN
    INSERT INTO audit VALUES ('+image ' || new.policy || '/' || new.name);
END;
CREATE TRIGGER g AFTER DELETE ON images BEGIN
    INSERT INTO audit VALUES ('-image ' || old.policy || '/' || old.name);
END;
CREATE TRIGGER h AFTER UPDATE ON images BEGIN
    INSERT INTO audit VALUES ('~image ' || new.policy || '/' || new.name || ' ' || new.flags);
END;
