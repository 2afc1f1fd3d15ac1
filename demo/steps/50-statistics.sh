show spaceinfo Recording
