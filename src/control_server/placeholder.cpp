// Empty until the room has its first source.
